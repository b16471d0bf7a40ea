// Applying a bundle patch, and trying one out.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QString>
#include <QVariantList>

/// Builds the bundle `newPath` from the bundle `oldPath` and the bundle patch file `patchPath`.
///
/// Whatever stands at `newPath` is removed first; then the old bundle is copied there, every mode of the copy
/// is set to 755, and the manifest's commands are performed in their order. `oldPath` is only read. Files
/// that the patch adds get the process's default mode (0666 less the umask). In a patch of format 2 files
/// keep their modes, and those that it builds get the ones that it states. In the end the bundle's program
/// ("CFBundleExecutable") is executable. A link at `newPath` is replaced, never what it points at.
///
/// Returns true when every command was processed without a fatal failure: a file that cannot be added, a
/// delta that cannot be applied, a file whose MD5 or SHA-256 is not the expected one, a path that leaves the
/// bundle, a payload slice that does not exist, a patch file that cannot be read or decompressed or goes
/// beyond the limits that docs/bundle-patch-format.md gives, a copy that fails, too little free space,
/// exhausted memory. Links that cannot be made or removed and items that cannot be deleted are no failures.
/// After a failure the half-built bundle stays at `newPath` for the caller to discard. A path that is a null
/// string is refused before anything is touched.
///
/// `log` receives one dictionary per event, in order; each has "description" (text), some "path", "file"
/// (text), "exists" (boolean), "original" and "new" (byte arrays: the whole old and new file after a failed
/// delta, unless it has more than 1 MiB). Paths are whole; the updater leaves their folders out of what it
/// uploads. `docs/bundle-patch-format.md` lists them.
///
/// Leaves an empty folder named by a new UUID in the temporary folder. Peak memory: the patch file, its
/// decompressed payload (which is kept in a file without a name beside `newPath` if it takes more than a
/// quarter of the machine's memory), and then the decoders (33 MiB per processor for patches of `zelupdater`,
/// 512 MiB at most) or the old and new content of the largest patched file. Safe from any thread; blocks it,
/// and decompresses on others where there are any to be had. Lets no exception out.
ZEL_EXPORT bool ZELUpdaterApplyPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                                     QVariantList &log);

/// Applies a patch as `ZELUpdaterApplyPatch` does and compares the result with a reference bundle: true when
/// every regular file of `expectedPath` has the same `MD5FromData` in `newPath`. Files that the reference
/// does not have, links and folders are not looked at, and a file that cannot be read counts as empty; nor
/// can files be told apart whose length is a multiple of 32768. An empty or missing reference gives true.
/// Blocks the calling thread.
ZEL_EXPORT bool ZELUpdaterTestPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                                    const QString &expectedPath);

/// Puts a backslash before every "(", ")", blank and "&", so that a plain path can stand as one word of a
/// shell command line. Nothing else is escaped (no quotes, "$", ";" or backslashes), which is why the updater
/// itself runs programs with their arguments and never through a shell: do not pass it names that others
/// chose.
ZEL_EXPORT QString ZELUpdaterEscapeString(const QString &string);
