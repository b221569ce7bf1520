#pragma once

#include <QByteArrayView>
#include <QString>

#include <memory>

namespace dlm {

// A download's identifier, name, URL and file path, fixed once it is made and kept as UTF-8 in
// one allocation: most stored records are only ever listed, and four UTF-16 strings would take
// twice the bytes in four allocations.
class RecordText {
public:
    enum Part { Id, Name, Url, Path };

    // From UTF-8 bytes, as stored.
    RecordText(QByteArrayView id, QByteArrayView name, QByteArrayView url, QByteArrayView path);
    static RecordText fromStrings(
        const QString &id, const QString &name, const QString &url, const QString &path);

    QString operator[](Part part) const { return QString::fromUtf8(view(part)); }
    // The part's UTF-8 bytes, valid while this text lives.
    QByteArrayView view(Part part) const;

private:
    // The end of each part, then the parts' bytes one after another.
    std::unique_ptr<char[]> block;
};

} // namespace dlm
