// SHA-256 as update records and manifests have it: 64 lower-case hexadecimal digits.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <optional>

namespace zel {

QString sha256Of(QByteArrayView data);

/// The 32 bytes themselves.
QByteArray sha256BytesOf(QByteArrayView data);

/// Of an open file, from its beginning to its end. Nothing where it cannot be read.
std::optional<QString> sha256OfFile(int file);

/// Of a file's content; nothing where it cannot be read.
std::optional<QString> sha256OfFile(const QString &path);

} // namespace zel
