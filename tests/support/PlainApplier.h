// Applies a bundle patch of format 2 as docs/bundle-patch-format.md says it, byte by byte and without a
// thought of speed, memory or hostile input: the measure for the real one.
#pragma once

#include "PlainMoveDelta.h"
#include "platform/FileTree.h"
#include "TemporaryTree.h"
#include "xz/XZ.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

class PlainApplier
{
public:
    PlainApplier(const QString &oldBundle, const QString &newBundle, const QString &patch)
        : m_old(oldBundle + '/')
        , m_new(newBundle + '/')
    {
        const QByteArray file = TemporaryTree::contents(patch);
        const qsizetype size = file.first(32).replace('\0', ' ').trimmed().toLongLong();
        m_manifest = QJsonDocument::fromJson(unpacked(file.mid(32, size))).object();
        m_payload = unpacked(file.mid(32 + size));
    }

    /// What is wrong with the patch; empty when it was applied.
    QString apply()
    {
        const QJsonArray commands = m_manifest["commands"].toArray();
        if (m_manifest["format"] != 2 || commands[0]["path"] != "")
            return "not of format 2";
        if (zel::copyTree(m_old, m_new.chopped(1)))
            return "cannot copy";
        for (qsizetype i = 1; i < commands.size(); ++i) {
            if (!perform(commands[i].toObject()))
                return "fails at " + commands[i]["path"].toString();
        }
        return {};
    }

private:
    static QByteArray unpacked(const QByteArray &stream)
    {
        return zel::decompressXZ(stream, 1 << 30).value();
    }

    bool perform(const QJsonObject &command)
    {
        const QString word = command["actions"][0].toString();
        const QString path = m_new + command["path"].toString();
        if (word.startsWith("delete"))
            return !zel::removeTree(path);
        if (word == "adddirectory")
            return QDir().mkpath(path);
        if (word == "create-symlink")
            return ::symlink(command["symlink"].toString().toUtf8(), path.toUtf8()) == 0;
        return (word == "mode" || build(word, command, path))
            && ::chmod(path.toUtf8(), mode_t(command["mode"].toInt())) == 0;
    }

    bool build(const QString &word, const QJsonObject &command, const QString &path) const
    {
        const QString from = command["from"].toString(command["path"].toString());
        const QByteArray old = word == "add" ? QByteArray() : TemporaryTree::contents(m_old + from);
        const QByteArray bytes = word == "copy" ? old
            : word == "add"                     ? content(command)
                                                : result(old, content(command));
        QFile::remove(path);
        QFile file(path);
        return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()
            == command["sha256"].toString()
            && (word == "add" || bytes.size() == command["size"].toInteger())
            && file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
    }

    QByteArray content(const QJsonObject &command) const
    {
        const QJsonValue position = command["position"];
        const QJsonValue length = command["length"];
        if (!position.isArray())
            return m_payload.mid(position.toInteger(), length.toInteger());
        QByteArray bytes;
        for (qsizetype i = 0; i < position.toArray().size(); ++i)
            bytes += m_payload.mid(position[i].toInteger(), length[i].toInteger());
        return bytes;
    }

    static qsizetype number(const QByteArray &bytes, qsizetype at)
    {
        qsizetype value = 0;
        for (int i = 7; i >= 0; --i)
            value = value * 256 + (uchar(bytes[at + i]) & (i == 7 ? 0x7F : 0xFF));
        return uchar(bytes[at + 7]) & 0x80 ? -value : value;
    }

    static QByteArray result(const QByteArray &old, const QByteArray &delta)
    {
        QByteArray bytes;
        if (delta.startsWith("ZELMOVE1")) {
            const auto made = zel::PlainMoveDelta::apply(view(old), view(delta), hash);
            return made ? QByteArray(reinterpret_cast<const char *>(made->data()), qsizetype(made->size()))
                        : QByteArray();
        }
        qsizetype control = 32;
        qsizetype difference = control + number(delta, 8);
        qsizetype extra = difference + number(delta, 16);
        for (qsizetype at = 0; bytes.size() < number(delta, 24); control += 24) {
            for (qsizetype left = number(delta, control); left > 0; --left)
                bytes += char(delta[difference++] + old[at++]);
            bytes += delta.mid(extra, number(delta, control + 8));
            extra += number(delta, control + 8);
            at += number(delta, control + 16);
        }
        return bytes;
    }

    static std::span<const unsigned char> view(const QByteArray &bytes)
    {
        return {reinterpret_cast<const unsigned char *>(bytes.data()), size_t(bytes.size())};
    }

    static void hash(std::span<const unsigned char> page, unsigned char *hash)
    {
        const QByteArrayView bytes(page.data(), qsizetype(page.size()));
        std::ranges::copy(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256), hash);
    }

    const QString m_old;
    const QString m_new;
    QJsonObject m_manifest;
    QByteArray m_payload;
};
