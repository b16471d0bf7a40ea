#include "PatchFile.h"

#include "common/IntegerValue.h"
#include "PayloadBlocks.h"
#include "platform/BoundedJson.h"
#include "platform/FileTree.h"
#include "xz/XZ.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>

#include <algorithm>
#include <array>

namespace zel {

namespace {

constexpr std::array Words = {
    QLatin1String(),         QLatin1String("delete-symlink"), QLatin1String("create-symlink"),
    QLatin1String("delete"), QLatin1String("adddirectory"),   QLatin1String("add"),
    QLatin1String("patch"),
};

PatchAction actionOf(const QJsonArray &words)
{
    for (size_t action = 1; action < Words.size(); ++action) {
        if (words.contains(QJsonValue(Words[action])))
            return PatchAction(action);
    }
    return PatchAction::None;
}

bool usesPayload(PatchAction action)
{
    return action == PatchAction::Add || action == PatchAction::Patch;
}

// A header that is not text states no length, which is a length of 0.
qint64 manifestLength(QByteArrayView header)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder(header);
    return decoder.hasError() ? 0 : integerValue(text);
}

ZELError judgeCount(qint64 count)
{
    return count <= PatchFile::CommandLimit
        ? ZELError()
        : ZELError::withMessage(QStringLiteral("it has more than the %1 commands that a patch may have")
                                    .arg(PatchFile::CommandLimit));
}

ZELError judgeNames(const std::vector<PatchCommand> &commands)
{
    qint64 names = 0;
    for (const PatchCommand &command : commands)
        names += command.path.count(u'/') + 1;
    return names <= PatchFile::NameLimit
        ? ZELError()
        : ZELError::withMessage(QStringLiteral("its paths have more than the %1 names that a patch may have")
                                    .arg(PatchFile::NameLimit));
}

ZELError readCommands(const QByteArray &manifest, std::vector<PatchCommand> &commands)
{
    QJsonDocument document;
    if (const ZELError error =
            parseJson(manifest, 8 * PatchFile::CommandLimit, document)) // a command has eight at most
        return error;
    const QJsonArray values = document.object()[QLatin1String("commands")].toArray();
    if (const ZELError error = judgeCount(values.size()))
        return error;
    commands.reserve(size_t(values.size()));
    for (const QJsonValue value : values)
        commands.push_back(PatchCommand::fromJson(value));
    return judgeNames(commands);
}

QByteArray manifestOf(const std::vector<PatchCommand> &commands)
{
    QJsonArray list;
    for (const PatchCommand &command : commands)
        list.append(command.toJson());
    return QJsonDocument(QJsonObject{{QLatin1String("commands"), list}}).toJson(QJsonDocument::Compact);
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

// A file whose size is a multiple of 32768 has no hash to check it by (MD5FromData.h), so a patch never has such a size:
// white space that means nothing is added to its manifest. It is uneven, since one blank after the other would add
// nothing to what is compressed.
std::optional<QByteArray> compressManifest(QByteArray json, qsizetype payloadSize)
{
    constexpr qsizetype hashedChunk = 32768;
    quint32 state = 1;
    std::optional<QByteArray> compressed = compressXZ(json);
    while (compressed && (PatchFile::HeaderSize + compressed->size() + payloadSize) % hashedChunk == 0) {
        state = state * 1664525 + 1013904223;
        json += " \t\r\n"[state >> 30];
        compressed = compressXZ(json);
    }
    return compressed;
}

} // namespace

QLatin1String wordOf(PatchAction action)
{
    return Words[size_t(action)];
}

PatchCommand PatchCommand::fromJson(const QJsonValue &value)
{
    const QJsonObject object = value.toObject();
    PatchCommand command;
    command.action = actionOf(object[QLatin1String("actions")].toArray());
    command.path = object[QLatin1String("path")].toString();
    command.symlink = object[QLatin1String("symlink")].toString();
    command.position = integerValue(object[QLatin1String("position")].toVariant());
    command.length = integerValue(object[QLatin1String("length")].toVariant());
    if (const QJsonValue hash = object[QLatin1String("hash")]; hash.isString())
        command.hash = hash.toString();
    return command;
}

QJsonValue PatchCommand::toJson() const
{
    QJsonObject object{{QLatin1String("actions"), QJsonArray{wordOf(action)}}, {QLatin1String("path"), path}};
    if (action == PatchAction::CreateSymlink)
        object[QLatin1String("symlink")] = symlink;
    if (usesPayload(action)) {
        object[QLatin1String("position")] = position;
        object[QLatin1String("length")] = length;
    }
    if (hash)
        object[QLatin1String("hash")] = *hash;
    return object;
}

// A delta has a byte for each that it gives, so that of large files that hardly change there is a large payload of
// hardly anything. Beyond them the worst of what is worth compressing is known.
qint64 PatchFile::Reading::payloadLimit(qint64 compressed) const
{
    constexpr qint64 base = qint64(32) << 20;
    if (!oldBundle)
        return PayloadLimit;
    return std::min(PayloadLimit,
                    base + 2 * std::min(*oldBundle, PayloadLimit) + 64 * std::min(compressed, PayloadLimit));
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
    const std::optional<QByteArray> manifest = decompressXZ(body.first(result.manifestSize), ManifestLimit);
    if (!manifest)
        return failed(QStringLiteral("its manifest does not decompress, or to more than 16 MiB"));
    result.commands.clear();
    if (const ZELError error = readCommands(*manifest, result.commands))
        return failed(error.message);
    if (const ZELError error = readPayload(body.sliced(result.manifestSize), reading, result.m_buffer))
        return failed(error.message);
    result.payload = result.m_buffer.view();
    return {};
} catch (const std::bad_alloc &) {
    return ZELError::withMessage(QLatin1String("memory is exhausted by the patch ") + path);
}

std::optional<QByteArrayView> PatchFile::slice(const PatchCommand &command) const
{
    if (command.position < 0 || command.length < 0 || command.position > payload.size()
        || command.length > payload.size() - command.position)
        return std::nullopt;
    return payload.sliced(command.position, command.length);
}

ZELError PatchFile::encode(const std::vector<PatchCommand> &commands, QByteArrayView payload, qint64 memory,
                           QByteArray &result)
{
    if (const ZELError error = judgeCount(qint64(commands.size())))
        return error;
    if (const ZELError error = judgeNames(commands))
        return error;
    try {
        const QByteArray manifest = manifestOf(commands);
        constexpr qsizetype blanks = 1024; // which may be added yet
        if (manifest.size() > ManifestLimit - blanks)
            return ZELError::withMessage(QStringLiteral("its list of commands takes more than 16 MiB"));
        const std::optional<QByteArray> second = compressXZBlocks(payloadBlocks(commands, payload), memory);
        const auto first = second ? compressManifest(manifest, second->size()) : std::nullopt;
        if (first) {
            result = QByteArray::number(first->size()).leftJustified(HeaderSize, '\0') + *first + *second;
            return {};
        }
    } catch (const std::bad_alloc &) {
    }
    return ZELError::withMessage(QStringLiteral("memory is exhausted"));
}

} // namespace zel
