#include "ZELError.h"

#include <system_error>

ZELError ZELError::withMessage(const QString &message)
{
    return {QStringLiteral("com.corrand.zelupdater"), 0, message};
}

ZELError ZELError::fromErrno(const QString &what, int number)
{
    const QString reason = QString::fromStdString(std::generic_category().message(number));
    return withMessage(what + QLatin1String(": ") + reason);
}
