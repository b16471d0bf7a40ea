// Values on their way to and from servers: numbers as servers and property lists write them, addresses,
// languages.
#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QUrl>
#include <QVariant>

namespace zel {

/// The integer that a value stands for. A number is cut towards zero and held within 64 bits; a boolean is 0
/// or 1; of a text, leading white space is skipped, then an optional sign and the digits up to the first
/// other character are read ("7001abc" is 7001, "abc" is 0). Anything else, a missing value included, is 0.
qint64 integerValue(const QVariant &value);

/// The JSON of a value that the host configured: an integer of any type is a number with all its digits, a
/// text stays a text, and so on.
QJsonValue jsonValue(const QVariant &value);

/// Whether an address is one that the updater ever asks: http or https, with a host. This refuses `file:`,
/// also as the target of a redirection.
bool isWebAddress(const QUrl &url);

/// The value of an "Accept-Language" header, the language that the user likes best first; empty when the
/// system names none.
QByteArray userLanguages();

} // namespace zel
