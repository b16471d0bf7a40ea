// Bundle patch files of given commands, sound or not.
#pragma once

#include "publish/XZWriter.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

/// Puts a patch file together from its three parts as they stand.
inline QByteArray patchFile(const QByteArray &header, const QByteArray &manifest, const QByteArray &payload)
{
    return header.leftJustified(32, '\0') + manifest + payload;
}

inline QByteArray xz(const QByteArray &data)
{
    return zel::compressXZ(data).value();
}

/// A patch file of a manifest's text and a payload.
inline QByteArray patchOf(const QByteArray &manifest, const QByteArray &payload = "payload")
{
    const QByteArray compressed = xz(manifest);
    return patchFile(QByteArray::number(compressed.size()), compressed, xz(payload));
}

/// One command of a manifest; `more` are its further keys, each behind a comma.
inline QByteArray command(const QByteArray &action, const QByteArray &path, const QByteArray &more = {})
{
    return R"({"actions":[")" + action + R"("],"path":")" + path + '"' + more + '}';
}

inline QByteArray slice(qint64 position, qint64 length)
{
    return ",\"position\":" + QByteArray::number(position) + ",\"length\":" + QByteArray::number(length);
}

inline QByteArray sha256Key(const QByteArray &digits)
{
    return ",\"sha256\":\"" + digits + '"';
}

/// A patch file of commands, written as the content of the "commands" array.
inline QByteArray patchOfCommands(const QByteArray &commands, const QByteArray &payload = "payload")
{
    return patchOf("{\"commands\":[" + commands + "]}", payload);
}

/// As above, in format 2, with the command that older readers fail at.
inline QByteArray patchOfFormat2(const QByteArray &commands, const QByteArray &payload = "payload")
{
    const QByteArray guard = command("delete", "") + (commands.isEmpty() ? "" : ",");
    return patchOf("{\"format\":2,\"commands\":[" + guard + commands + "]}", payload);
}
