// The languages that the user reads, as HTTP asks for them.
#pragma once

#include <QLocale>

namespace zel {

/// The value of an "Accept-Language" header, the language liked best first; empty when the system names none.
inline QByteArray userLanguages()
{
    QStringList languages = QLocale().uiLanguages();
    languages.removeAll(QLatin1String("C"));
    return languages.join(u',').toLatin1();
}

} // namespace zel
