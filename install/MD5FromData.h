// The MD5 that the update server's and the manifest's "hash" values are compared with.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QByteArrayView>
#include <QString>

/// The MD5 (RFC 1321) of `data` as 32 lower-case hexadecimal digits, or the empty string (not null) when the
/// length is 0 or a multiple of 32768. The empty string is part of the protocol: servers and manifests carry
/// it as the expected hash of such files. Where the system refuses MD5, as one that allows approved
/// algorithms only does, it is a text that is no hash. Safe from any thread.
ZEL_EXPORT QString MD5FromData(QByteArrayView data);
