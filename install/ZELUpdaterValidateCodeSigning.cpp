#include "ZELUpdaterValidateCodeSigning.h"

#include "common/DDLog.h"
#include "seal/BundleSeal.h"

bool ZELUpdaterValidateCodeSigning(const QUrl &bundle)
{
    if (!bundle.isLocalFile() || !bundle.host().isEmpty()) // a host would become the first part of the path
        return false;
    const ZELError error = zel::verifySeal(bundle.toLocalFile());
    if (error)
        zel::systemLog(error.message);
    return !error;
}
