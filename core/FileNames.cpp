#include "FileNames.h"

#include <QByteArray>
#include <QUrl>

namespace dlm {

namespace filenames {

QString fromUrl(const QString &url)
{
    // Split before decoding, so that an encoded '/' cannot pick another segment.
    const QString path = QUrl(url).path(QUrl::FullyEncoded);
    const QString segment = path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
    const QString decoded = QUrl::fromPercentEncoding(segment.toUtf8());
    QString name;
    name.reserve(decoded.size());
    for (const QChar c : decoded) {
        if (c != QLatin1Char('/') && c.category() != QChar::Other_Control)
            name.append(c);
    }
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        return QStringLiteral("download");
    return name;
}

QString fit(const QString &name, const QString &suffix)
{
    const QByteArray tail = suffix.toUtf8();
    const QByteArray whole = name.toUtf8();
    if (whole.size() + tail.size() <= kMaxNameBytes)
        return name + suffix;
    QByteArray stem = whole;
    QByteArray extension;
    const int dot = whole.lastIndexOf('.');
    // An extension that leaves no room for a stem is cut like the rest of the name.
    if (dot > 0 && whole.size() - dot + tail.size() < kMaxNameBytes) {
        stem = whole.left(dot);
        extension = whole.mid(dot);
    }
    int keep = kMaxNameBytes - extension.size() - tail.size();
    // Never end inside a UTF-8 sequence: back off over continuation bytes.
    while (keep > 0 && (uchar(stem.at(keep)) & 0xC0) == 0x80)
        --keep;
    return QString::fromUtf8(stem.left(keep) + extension + tail);
}

bool isPlainName(const QString &name)
{
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String("..")
        || name.toUtf8().size() > kMaxNameBytes)
        return false;
    for (const QChar c : name) {
        if (c == QLatin1Char('/') || c.category() == QChar::Other_Control)
            return false;
    }
    return true;
}

int isPlainAsciiName(QByteArrayView name)
{
    if (name.isEmpty() || name == "." || name == ".." || name.size() > kMaxNameBytes)
        return 0;
    for (const char c : name) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return -1;
        if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return 0;
    }
    return 1;
}

QString join(const QString &directory, const QString &name)
{
    if (directory.endsWith(QLatin1Char('/')))
        return directory + name;
    return directory + QLatin1Char('/') + name;
}

} // namespace filenames

} // namespace dlm
