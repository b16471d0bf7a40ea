// Numbers as the update server and property lists write them: as numbers or as text.
#pragma once

#include <QJsonValue>
#include <QVariant>

namespace zel {

/// The integer that a value stands for. A number is cut towards zero and held within 64 bits; a boolean is 0 or 1;
/// of a text, leading white space is skipped, then an optional sign and the digits up to the first other character
/// are read ("7001abc" is 7001, "abc" is 0). Anything else, a missing value included, is 0.
qint64 integerValue(const QVariant &value);

/// The JSON of a value that the host configured: an integer of any type is a number with all its digits, a text stays a
/// text, and so on.
QJsonValue jsonValue(const QVariant &value);

} // namespace zel
