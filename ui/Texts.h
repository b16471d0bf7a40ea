// The updater's own texts; the tables and the look-up behind them are those of ZELLocalization.h.
#pragma once

#include <QString>

namespace zel {

/// The text for `key`, such as "Updater.Cancel", in the library's own table. Safe from any thread.
QString localized(const char *key);

/// The direction in which the texts of `localized` run: that of the language found, not of the one asked for.
/// Safe from any thread.
Qt::LayoutDirection textDirection();

/// Uses `language`, such as "pt_BR" or "zh-Hant", from the next look-up on, instead of the user's languages;
/// null or empty returns to these, asked for anew. Texts that were looked up before are not changed. Safe
/// from any thread.
void setLanguage(const QString &language);

} // namespace zel
