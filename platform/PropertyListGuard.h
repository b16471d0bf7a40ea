// The look at a property list before the library reads it.
#pragma once

#include <QByteArrayView>

namespace zel {

/// Whether a property list can be read without exhausting time, stack or memory, and without an abort. Of a list in XML,
/// the reading library compares each key with those before it that meet it in its table, which has a fixed size, and
/// moves the rest of a text behind each reference in it. It
/// calls itself once per level of nesting when it reads a binary list and when it frees any list, and copies an object
/// of a binary list for each reference to it, so that a small file can stand for a list of any size. Over a key with a
/// NUL in it, it ends the process.
/// A list that passes may still be malformed.
bool isTamePropertyList(QByteArrayView bytes);

} // namespace zel
