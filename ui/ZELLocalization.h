// Texts by key: the tables of the updater's own texts and the one look-up that reads them.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QString>

/// The text for `key` in a table of the language in use, in English where that table lacks the key, and the
/// key itself where nothing is found.
///
/// `bundle` is the folder, on disk or in the resources, that holds the compiled tables as
/// `<table>_<language>.qm`, with the table's name for their context; null or empty stands for the library's
/// own tables, whose one table is "ZELUpdater". `comment` is a note to translators and takes no part in the
/// look-up.
///
/// The language is the first of the user's (`QLocale().uiLanguages()` at the first look-up) that any table of
/// the bundle is in: a table of the same script is preferred, then one of the same country, so that "zh_HK"
/// finds traditional Chinese, "de_AT" German and "pt_PT" the Portuguese of Brazil; without any it is English.
/// The tables are never installed into the host's application. Each is loaded once and kept (a few
/// kilobytes). Safe from any thread.
ZEL_EXPORT QString ZELLocalizedStringFromTableInBundle(const QString &key, const QString &table,
                                                       const QString &bundle, const QString &comment);
