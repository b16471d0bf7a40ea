// Where the pages' buttons stand.
#pragma once

#include "ZELLayout.h"

namespace zel {

/// The region of one button or of a row of them, at the page's bottom.
inline ZELLayoutFrame buttonRowFrame()
{
    return ZELMakeLayoutFrame(32, -32, ZELLayoutNotSet, -32, ZELLayoutNotSet, 32);
}

} // namespace zel
