// The bundle patch file, taken apart. docs/bundle-patch-format.md describes it; publish/PatchWriter.h writes
// it.
#pragma once

#include "base/SystemCalls.h"
#include "common/ZELError.h"
#include "PatchManifest.h"
#include "platform/LargeBuffer.h"

#include <QByteArrayView>
#include <QString>

#include <optional>

namespace zel {

struct PatchFile {
    static constexpr qsizetype HeaderSize = 32;
    static constexpr qint64 PayloadLimit = qint64(4) << 30; ///< bytes of the payload, decompressed

    /// What reading depends on besides the file.
    struct Reading {
        qint64 payloadLimit(qint64 compressed) const;

        /// Bytes of the bundle that the patch starts from, where it is known.
        std::optional<qint64> oldBundle;

        /// A payload of more bytes goes to an unnamed file.
        qint64 memory = machineMemory() / 4;

        /// Where that is made; the temporary folder unless named.
        QString folder = {};
    };

    PatchManifest manifest;
    QByteArrayView payload; ///< lives as long as the patch file
    qint64 manifestSize = 0; ///< bytes in the file, compressed
    qint64 payloadSize = 0; ///< likewise

    /// Reads and decompresses a patch file. An error when the file cannot be read, is shorter than its
    /// header, states a manifest length that is negative or runs past its end, when the manifest or the
    /// payload does not decompress or `PatchManifest::read` refuses it, and beyond the limits, which
    /// docs/bundle-patch-format.md gives. Peak memory: the file, 300 MiB for the worst manifest, the payload,
    /// and the decoders (`decompressXZ`). Works on all processors.
    static ZELError read(const QString &path, const Reading &reading, PatchFile &result);

    /// The bytes that a command's slices hold together; nothing when it has none, or one lies outside the
    /// payload. Several are put together in memory, one is where it lies.
    std::optional<QByteArray> contentOf(const PatchCommand &command) const;

    /// How many those are, without putting them together.
    std::optional<qint64> sizeOfContent(const PatchCommand &command) const;

    /// How many bytes may come of the patch file when it starts from a bundle of `oldBundle` bytes: what
    /// neither resembles the old bundle nor comes out of much input is made up.
    qint64 changeLimit(qint64 oldBundle) const { return changeLimit(oldBundle, manifestSize + payloadSize); }

    /// As above, of a part of the file that has `compressed` bytes.
    static qint64 changeLimit(qint64 oldBundle, qint64 compressed);

private:
    LargeBuffer m_buffer; // the payload
};

} // namespace zel
