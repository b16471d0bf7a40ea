// The look at a property list before the library reads it.
#pragma once

#include <QByteArrayView>

namespace zel {

/// Whether a property list can be read without exhausting stack or memory. The reading library calls itself once per
/// level of nesting when it reads a binary list and when it frees any list, and copies an object of a binary list for
/// each reference to it, so that a small file can stand for a list of any size.
/// It judges the size only: a list that passes may still be malformed.
bool isTamePropertyList(QByteArrayView bytes);

} // namespace zel
