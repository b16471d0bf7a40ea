// The check that a built bundle is what its publisher sealed.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QUrl>

/// Whether a bundle's seal, and those of all bundles nested in it, are valid, whoever signed them. `bundle`
/// is a file URL; for any other the answer is false. Why a bundle is not valid goes to the system log alone.
/// Reads every file of the bundle, in pieces; memory is some kilobytes per item. Safe from any thread.
ZEL_EXPORT bool ZELUpdaterValidateCodeSigning(const QUrl &bundle);
