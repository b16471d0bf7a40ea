// What a patch may write, judged before any of its commands is performed.
#pragma once

#include "PatchFile.h"

namespace zel {

/// What slices and files may take beyond their bounds, so that small patches may use theirs as they like.
inline constexpr qint64 SmallChange = qint64(1) << 20;

/// An error when the commands would use more than twice the payload, be it by reading their slices or by writing what
/// comes of them, or when that does not fit into the file system of `folder`; how much is missing is told then.
///
/// A delta gives no more bytes than it has, as each of them is a difference or an extra byte: only one whose blocks
/// run into each other can give up to twice as many. Used once each, the slices of a payload therefore give at most
/// that payload. Twice as much leaves room for a slice that serves two files.
ZELError judgeWrites(const PatchFile &patch, const QString &folder);

} // namespace zel
