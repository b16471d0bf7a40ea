// JSON of strangers, parsed within bounds.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QJsonDocument>

namespace zel {

/// How many values a JSON text has, names not counted; of another text it is some number.
qint64 valuesIn(QByteArrayView json);

/// Parses `json`; the document is null when it is no JSON. An error when it has more than `mostValues` values
/// (names do not count), or when there is not enough memory for what the parser makes of them, up to a
/// hundred times the text: Qt's parser ends the process when it meets the end of memory itself. Safe from any
/// thread.
ZELError parseJson(const QByteArray &json, qint64 mostValues, QJsonDocument &document);

} // namespace zel
