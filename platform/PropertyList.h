// Property lists, as XML or in binary form, read as Qt values.
#pragma once

#include <QByteArray>
#include <QVariantMap>

#include <optional>

namespace zel {

/// The dictionary at the top of a property list. Strings become QString, integers qint64 (the bits of an
/// unsigned one beyond 2^63 are kept), reals double, booleans bool, dates QDateTime (UTC), data QByteArray,
/// arrays QVariantList and dictionaries QVariantMap; other values, and what is nested deeper than 64 levels,
/// are left out. Of a key that stands twice, the last counts. Nothing when the bytes are no property list,
/// hold no dictionary at the top, or are built to exhaust or end a reader: more than 4096 arrays and
/// dictionaries, in XML more than 10 000 keys or a text of very many references, a binary list whose shared
/// objects unfold to more than 64 MiB, or one with a NUL in a key. Peak memory: some hundred bytes per value,
/// besides two copies of the texts and data. Safe from any thread.
std::optional<QVariantMap> readPropertyList(const QByteArray &bytes);

} // namespace zel
