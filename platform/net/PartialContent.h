// What HTTP says about pieces of a file: the headers of ranges and of validators, read from strangers.
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

namespace zel {

/// The bytes `first` to `last` of a file of `total`, as the header "Content-Range" says it.
struct ContentRange {
    qint64 first;
    qint64 last;
    qint64 total;
};

/// Reads "bytes 5-9/10". Nothing for anything else: other units, an unknown total, ranges that cannot be.
std::optional<ContentRange> contentRange(QByteArrayView header);

/// Whether a text may be sent as "If-Range": a strong entity tag or a date, short, of visible ASCII, so that
/// it is one header and nothing besides, wherever it has been kept.
bool isValidator(QByteArrayView text);

/// What tells this version of a file from every other one (RFC 9110, section 13.1.5): its entity tag if that
/// is a strong one. Only without any entity tag its time of modification, when the answer was made a second
/// after that or later; two versions within one second would bear the same time. Empty: there is none.
/// Null stands for a header that is missing.
QByteArray strongValidator(const QByteArray &entityTag, const QByteArray &lastModified,
                           const QByteArray &date);

} // namespace zel
