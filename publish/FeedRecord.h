// One record of a feed, as JSON, and the files in the feed's folder that it names.
#pragma once

#include "common/ZELError.h"

#include <QJsonObject>
#include <QString>

namespace zel {

/// The build that a record offers, or a patch starts from.
qint64 buildOf(const QJsonValue &entry);

/// An error that begins with the record's build.
ZELError recordError(const QJsonObject &record, const QString &message);

/// Records bear addresses, not names: a blank or a "#" in a name must not end the address.
QString addressOf(const QString &name);
QString nameOf(const QJsonValue &address);

/// Compares a file of a record, which `entry` describes (the record itself, or one of its patches), with what
/// that says of it, and adds what it does not say: "size", "hash" and "sha256". With `copy`, a path at which
/// nothing is yet, the file is copied there first, and that is what is looked at: what is to be unpacked or
/// applied as well must not be exchanged between the two.
ZELError describeFile(const QString &folder, const QJsonObject &record, QJsonObject &entry,
                      const QString &copy = {});

/// What an entry does not say of its file is taken from another description of it; an error where they
/// differ.
ZELError mergeFacts(const QJsonObject &record, const QJsonObject &described, QJsonObject &entry);

/// The same for the notes: "historysha256".
ZELError describeNotes(const QString &folder, QJsonObject &record);

/// All files of a record: archive, patches, notes.
ZELError describeFiles(const QString &folder, QJsonObject &record);

} // namespace zel
