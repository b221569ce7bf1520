#include "RecordText.h"

#include <cstring>

namespace dlm {

namespace {
constexpr int kParts = 4;
constexpr size_t kHeader = kParts * sizeof(quint32);
} // namespace

RecordText RecordText::fromStrings(
    const QString &id, const QString &name, const QString &url, const QString &path)
{
    return RecordText(id.toUtf8(), name.toUtf8(), url.toUtf8(), path.toUtf8());
}

RecordText::RecordText(
    QByteArrayView id, QByteArrayView name, QByteArrayView url, QByteArrayView path)
{
    const QByteArrayView parts[kParts] = { id, name, url, path };
    quint32 ends[kParts];
    quint32 end = 0;
    for (int i = 0; i < kParts; ++i)
        ends[i] = end += quint32(parts[i].size());
    block.reset(new char[kHeader + end]);
    std::memcpy(block.get(), ends, kHeader);
    char *at = block.get() + kHeader;
    for (const QByteArrayView part : parts) {
        if (!part.isEmpty()) // an empty part may have no data at all
            std::memcpy(at, part.constData(), size_t(part.size()));
        at += part.size();
    }
}

QByteArrayView RecordText::view(Part part) const
{
    quint32 ends[kParts];
    std::memcpy(ends, block.get(), kHeader);
    const quint32 begin = part == Id ? 0 : ends[part - 1];
    return QByteArrayView(block.get() + kHeader + begin, qsizetype(ends[part] - begin));
}

} // namespace dlm
