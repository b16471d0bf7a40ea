#include "PatchFile.h"

#include "FileTree.h"
#include "IntegerValue.h"
#include "PayloadBlocks.h"
#include "XZ.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>

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

std::vector<PatchCommand> commandsOf(const QByteArray &manifest)
{
    std::vector<PatchCommand> commands;
    const QJsonArray values = QJsonDocument::fromJson(manifest).object()[QLatin1String("commands")].toArray();
    commands.reserve(size_t(values.size()));
    for (const QJsonValue value : values)
        commands.push_back(PatchCommand::fromJson(value));
    return commands;
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

ZELError PatchFile::read(const QString &path, PatchFile &result)
{
    const auto failed = [&path](const char *why) {
        return ZELError::withMessage(path + QLatin1String(" is not a bundle patch: ") + QLatin1String(why));
    };
    const std::optional<QByteArray> file = readFile(path);
    if (!file)
        return ZELError::withMessage(QLatin1String("cannot read the patch ") + path);
    if (file->size() < HeaderSize)
        return failed("it is shorter than its header");
    result.manifestSize = manifestLength(QByteArrayView(*file).first(HeaderSize));
    if (result.manifestSize < 0 || result.manifestSize > file->size() - HeaderSize)
        return failed("its manifest does not end within the file");
    const QByteArrayView body = QByteArrayView(*file).sliced(HeaderSize);
    result.payloadSize = body.size() - result.manifestSize;
    const std::optional<QByteArray> manifest = decompressXZ(body.first(result.manifestSize), ManifestLimit);
    if (!manifest)
        return failed("its manifest does not decompress");
    std::optional<QByteArray> payload = decompressXZ(body.sliced(result.manifestSize), PayloadLimit);
    if (!payload)
        return failed("its payload does not decompress");
    result.commands = commandsOf(*manifest);
    result.payload = std::move(*payload);
    return {};
}

std::optional<QByteArrayView> PatchFile::slice(const PatchCommand &command) const
{
    if (command.position < 0 || command.length < 0 || command.position > payload.size()
        || command.length > payload.size() - command.position)
        return std::nullopt;
    return QByteArrayView(payload).sliced(command.position, command.length);
}

std::optional<QByteArray> PatchFile::encode(const std::vector<PatchCommand> &commands, QByteArrayView payload,
                                            qint64 memory)
{
    QJsonArray list;
    for (const PatchCommand &command : commands)
        list.append(command.toJson());
    const QJsonDocument manifest(QJsonObject{{QLatin1String("commands"), list}});
    const std::optional<QByteArray> second = compressXZBlocks(payloadBlocks(commands, payload), memory);
    if (!second)
        return std::nullopt;
    const std::optional<QByteArray> first =
        compressManifest(manifest.toJson(QJsonDocument::Compact), second->size());
    if (!first)
        return std::nullopt;
    try {
        return QByteArray::number(first->size()).leftJustified(HeaderSize, '\0') + *first + *second;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

} // namespace zel
