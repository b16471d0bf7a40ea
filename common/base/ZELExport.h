// Marks what libZELUpdater.so exports; everything else is hidden.
#pragma once

#define ZEL_EXPORT __attribute__((visibility("default")))
