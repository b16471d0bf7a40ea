#include "PatchFile.h"

#include "common/WireValues.h"
#include "platform/FileContents.h"
#include "xz/XZ.h"

#include <QDir>
#include <QStringDecoder>

#include <algorithm>

namespace zel {

namespace {

// A header that is not text states no length, which is a length of 0.
qint64 manifestLength(QByteArrayView header)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder(header);
    return decoder.hasError() ? 0 : integerValue(text);
}

ZELError readPayload(QByteArrayView compressed, const PatchFile::Reading &reading, LargeBuffer &payload)
{
    const std::optional<qint64> size = uncompressedSizeXZ(compressed);
    const qint64 limit = reading.payloadLimit(compressed.size());
    if (size && *size > limit)
        return ZELError::withMessage(
            QStringLiteral("its payload has %1 bytes, and may have %2").arg(*size).arg(limit));
    const QString folder = reading.folder.isNull() ? QDir::tempPath() : reading.folder;
    if (size) {
        if (const ZELError error = LargeBuffer::reserve(*size, reading.memory, folder, payload))
            return error;
    }
    if (!size || !decompressXZ(compressed, payload.data(), *size))
        return ZELError::withMessage(QStringLiteral("its payload does not decompress"));
    return {};
}

} // namespace

// A delta has a byte for each that it gives, so that of large files that hardly change there is a large
// payload of hardly anything. Beyond them the worst of what is worth compressing is known. The terms are
// bounded, so that the sum is.
qint64 PatchFile::changeLimit(qint64 oldBundle, qint64 compressed)
{
    constexpr qint64 base = qint64(32) << 20;
    constexpr qint64 most = qint64(1) << 50;
    return base + 2 * std::min(oldBundle, most) + 64 * std::min(compressed, most);
}

qint64 PatchFile::Reading::payloadLimit(qint64 compressed) const
{
    return oldBundle ? std::min(PayloadLimit, changeLimit(*oldBundle, compressed)) : PayloadLimit;
}

ZELError PatchFile::read(const QString &path, const Reading &reading, PatchFile &result)
try {
    const auto failed = [&path](const QString &why) {
        return ZELError::withMessage(path + QLatin1String(" is not a bundle patch: ") + why);
    };
    const std::optional<QByteArray> file = readFile(path);
    if (!file)
        return ZELError::withMessage(QLatin1String("cannot read the patch ") + path);
    if (file->size() < HeaderSize)
        return failed(QStringLiteral("it is shorter than its header"));
    result.manifestSize = manifestLength(QByteArrayView(*file).first(HeaderSize));
    if (result.manifestSize < 0 || result.manifestSize > file->size() - HeaderSize)
        return failed(QStringLiteral("its manifest does not end within the file"));
    const QByteArrayView body = QByteArrayView(*file).sliced(HeaderSize);
    result.payloadSize = body.size() - result.manifestSize;
    const std::optional<QByteArray> manifest =
        decompressXZ(body.first(result.manifestSize), PatchManifest::SizeLimit);
    if (!manifest)
        return failed(QStringLiteral("its manifest does not decompress, or to more than 16 MiB"));
    if (const ZELError error = PatchManifest::read(*manifest, result.manifest))
        return failed(error.message);
    if (const ZELError error = readPayload(body.sliced(result.manifestSize), reading, result.m_buffer))
        return failed(error.message);
    result.payload = result.m_buffer.view();
    return {};
} catch (const std::bad_alloc &) {
    return ZELError::withMessage(QLatin1String("memory is exhausted by the patch ") + path);
}

std::optional<qint64> PatchFile::sizeOfContent(const PatchCommand &command) const
{
    qint64 size = 0;
    for (const auto &[position, length] : command.slices) {
        if (position < 0 || length < 0 || position > payload.size() || length > payload.size() - position)
            return std::nullopt;
        size += length;
    }
    return command.slices.empty() ? std::nullopt : std::optional(size);
}

std::optional<QByteArray> PatchFile::contentOf(const PatchCommand &command) const
{
    const std::optional<qint64> size = sizeOfContent(command);
    if (!size)
        return std::nullopt;
    const auto &[position, length] = command.slices.front();
    if (command.slices.size() == 1)
        return QByteArray::fromRawData(payload.data() + position, length);
    QByteArray content;
    content.reserve(*size);
    for (const PatchSlice &slice : command.slices)
        content += payload.sliced(slice.position, slice.length);
    return content;
}

} // namespace zel
