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

ZELError tryToReplace(const QString &bundle, const Seal &seal, const SealFolder &folder, SealFile &resources,
                      SealFile &signature)
{
    if (const ZELError error = resources.writeAside(seal.resources))
        return error;
    if (const ZELError error = signature.writeAside(seal.signature))
        return error;
    if (const ZELError error = resources.moveIntoPlace())
        return error;
    if (const ZELError error = signature.moveIntoPlace())
        return error;
    if (const ZELError error = folder.settle())
        return error;
    return verifyAll(bundle, {});
}

ZELError replaceSeal(const QString &bundle, const SealFolder &folder, const Seal &seal)
{
    SealFile resources(folder, "CodeResources", MaxResourcesSize);
    SealFile signature(folder, "CodeSignature", MaxSignatureSize);
    const ZELError error = tryToReplace(bundle, seal, folder, resources, signature);
    if (error) {
        signature.putBack();
        resources.putBack();
    }
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
    SealFolder sealFolder;
    Seal seal;
    if (const ZELError error = signer.load(keyFile, certificateFile))
        return because(attempt, bundle, error);
    if (const ZELError error = folder.open(bundle))
        return because(attempt, bundle, error);
    const QString sealPath = bundle + u'/' + QFile::decodeName(SealedBundle(folder).sealPath());
    ZELError error = refuseLinks(sealPath);
    if (!error)
        error = sealFolder.open(sealPath);
    if (!error)
        error = makeSeal(folder, signer, seal);
    if (!error)
        error = replaceSeal(bundle, sealFolder, seal);
    if (error)
        QDir().rmdir(sealPath); // goes only when it is empty: when the bundle had no seal
    return because(attempt, bundle, error);
}

ZELError verifySeal(const QString &bundle, const SignerPins &pins)
{
    return because(QStringLiteral("no valid seal on"), bundle, verifyAll(bundle, pins));
}

} // namespace zel
