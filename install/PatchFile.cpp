#include "PatchFile.h"

#include "common/WireValues.h"
#include "platform/BoundedJson.h"
#include "platform/FileContents.h"
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
    return PatchFile::judgeCommands(commands);
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

// A delta has a byte for each that it gives, so that of large files that hardly change there is a large
// payload of hardly anything. Beyond them the worst of what is worth compressing is known.
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

ZELError PatchFile::judgeCommands(const std::vector<PatchCommand> &commands)
{
    if (const ZELError error = judgeCount(qint64(commands.size())))
        return error;
    qint64 names = 0;
    for (const PatchCommand &command : commands)
        names += command.path.count(u'/') + 1;
    return names <= NameLimit
        ? ZELError()
        : ZELError::withMessage(
            QStringLiteral("its paths have more than the %1 names that a patch may have").arg(NameLimit));
}

std::optional<QByteArrayView> PatchFile::slice(const PatchCommand &command) const
{
    if (command.position < 0 || command.length < 0 || command.position > payload.size()
        || command.length > payload.size() - command.position)
        return std::nullopt;
    return payload.sliced(command.position, command.length);
}

} // namespace zel
