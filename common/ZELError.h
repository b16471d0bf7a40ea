// The one error value of the updater.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QString>

/// What went wrong, in words for a person. A default-made error stands for "no error".
struct ZEL_EXPORT ZELError {
    QString domain; ///< "com.corrand.zelupdater" for the updater's own errors; empty when there is no error
    qint64 code = 0;
    QString message;

    explicit operator bool() const { return !domain.isNull(); }

    /// An error of the updater with code 0.
    static ZELError withMessage(const QString &message);

    /// The system error `number` (an errno value), met while doing what `what` says: "cannot read /a/b".
    static ZELError fromErrno(const QString &what, int number);
};
