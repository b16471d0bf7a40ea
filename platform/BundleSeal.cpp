#include "BundleSeal.h"

#include "SealedBundle.h"
#include "SealFile.h"
#include "SealSignature.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace zel {

namespace {

struct Seal {
    QByteArray resources;
    QByteArray signature;
};

ZELError verifyAll(const QString &bundle, const SignerPins &pins)
{
    BundleFolder folder;
    SealedItems sealed;
    SealedItems found;
    SealBudget budget;
    if (const ZELError error = folder.open(bundle))
        return error;
    if (const ZELError error = SealedBundle(folder).readSeal(sealed, budget, pins))
        return error;
    if (const ZELError error = folder.scan(found))
        return error;
    if (const ZELError error = SealedBundle(folder).compare(sealed, found, budget))
        return error;
    return verifyNested(folder, found, budget);
}

ZELError makeSeal(const BundleFolder &folder, const Signer &signer, Seal &seal)
{
    SealedItems items;
    SealBudget budget;
    if (const ZELError error = folder.scan(items))
        return error;
    if (const ZELError error = verifyNested(folder, items, budget))
        return error;
    for (const QByteArray &file : SealedBundle(folder).sealFiles())
        items.files.remove(file);
    if (const ZELError error = checkNames(items))
        return error;
    if (const ZELError error = checkLinks(items, {}, budget.linkNames))
        return error;
    seal.resources = toPropertyList(items);
    if (seal.resources.size() > MaxResourcesSize)
        return ZELError::withMessage(QStringLiteral("it has too many items"));
    return signer.sign(seal.resources, seal.signature);
}

// A link here would lead the new seal out of the bundle.
ZELError refuseLinks(const QString &sealFolder)
{
    for (const QString &path : {sealFolder, sealFolder + QLatin1String("/CodeResources"),
                                sealFolder + QLatin1String("/CodeSignature")}) {
        if (QFileInfo(path).isSymLink())
            return ZELError::withMessage(path + QLatin1String(" is a link"));
    }
    return {};
}

ZELError tryToReplace(const QString &bundle, const Seal &seal, SealFile &resources, SealFile &signature)
{
    if (const ZELError error = resources.writeAside(seal.resources))
        return error;
    if (const ZELError error = signature.writeAside(seal.signature))
        return error;
    if (const ZELError error = resources.moveIntoPlace())
        return error;
    if (const ZELError error = signature.moveIntoPlace())
        return error;
    return verifyAll(bundle, std::nullopt);
}

ZELError replaceSeal(const QString &bundle, const QString &sealFolder, const Seal &seal)
{
    if (const ZELError error = refuseLinks(sealFolder))
        return error;
    if (!QDir().mkpath(sealFolder))
        return ZELError::withMessage(QLatin1String("cannot make ") + sealFolder);
    ZELError error;
    {
        SealFile resources(sealFolder + QLatin1String("/CodeResources"), MaxResourcesSize);
        SealFile signature(sealFolder + QLatin1String("/CodeSignature"), MaxSignatureSize);
        error = tryToReplace(bundle, seal, resources, signature);
        if (!error)
            return {};
        signature.putBack();
        resources.putBack();
    }
    QDir().rmdir(sealFolder); // goes only when it is empty: when the bundle had no seal
    return error;
}

ZELError because(const QString &what, const QString &bundle, const ZELError &reason)
{
    if (!reason)
        return {};
    return ZELError::withMessage(what + u' ' + bundle + QLatin1String(": ") + reason.message);
}

} // namespace

ZELError sealBundle(const QString &bundle, const QString &keyFile, const QString &certificateFile)
{
    const QString attempt = QStringLiteral("cannot seal");
    Signer signer;
    BundleFolder folder;
    Seal seal;
    if (const ZELError error = signer.load(keyFile, certificateFile))
        return because(attempt, bundle, error);
    if (const ZELError error = folder.open(bundle))
        return because(attempt, bundle, error);
    if (const ZELError error = makeSeal(folder, signer, seal))
        return because(attempt, bundle, error);
    const QByteArray sealPath = SealedBundle(folder).sealPath();
    return because(attempt, bundle, replaceSeal(bundle, bundle + u'/' + QFile::decodeName(sealPath), seal));
}

ZELError verifySeal(const QString &bundle, const SignerPins &pins)
{
    return because(QStringLiteral("no valid seal on"), bundle, verifyAll(bundle, pins));
}

} // namespace zel
