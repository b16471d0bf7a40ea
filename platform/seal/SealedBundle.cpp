#include "SealedBundle.h"

#include "SealSignature.h"

#include <optional>
#include <set>

namespace zel {

namespace {

QByteArray joined(const QByteArray &folder, const QByteArray &name)
{
    return folder.isEmpty() ? name : folder + '/' + name;
}

QByteArray parentOf(const QByteArray &path)
{
    return path.left(qMax(path.lastIndexOf('/'), qsizetype(0)));
}

QByteArray nameOf(const QByteArray &path)
{
    return path.mid(path.lastIndexOf('/') + 1);
}

// The folder whose `_CodeSignature` an item belongs to. A link in place of a seal counts: such a bundle was meant to be
// sealed and is not valid.
std::optional<QByteArray> holderOfSeal(const QByteArray &path, bool isLink)
{
    const QByteArray name = nameOf(path);
    const QByteArray parent = parentOf(path);
    if (isLink && name == "_CodeSignature")
        return parent;
    if ((name == "CodeResources" || name == "CodeSignature") && nameOf(parent) == "_CodeSignature")
        return parentOf(parent);
    return std::nullopt;
}

// That folder is the bundle, or the bundle's `Contents`. Where a folder has `Contents`, its seal can only be in there: a
// `_CodeSignature` beside it is a folder like any other.
std::optional<QByteArray> ownerOfSeal(const BundleFolder &folder, const QByteArray &holder)
{
    if (nameOf(holder) == "Contents")
        return parentOf(holder);
    if (folder.hasFolder(joined(holder, "Contents")))
        return std::nullopt;
    return holder;
}

std::set<QByteArray> holdersOfSeals(const SealedItems &items)
{
    std::set<QByteArray> holders;
    for (auto file = items.files.begin(); file != items.files.end(); ++file) {
        if (const std::optional<QByteArray> holder = holderOfSeal(file.key(), false))
            holders.insert(*holder);
    }
    for (auto link = items.links.begin(); link != items.links.end(); ++link) {
        if (const std::optional<QByteArray> holder = holderOfSeal(link.key(), true))
            holders.insert(*holder);
    }
    return holders;
}

std::set<QByteArray> nestedBundles(const BundleFolder &folder, const std::set<QByteArray> &holders)
{
    std::set<QByteArray> bundles;
    for (const QByteArray &holder : holders) {
        if (const std::optional<QByteArray> owner = ownerOfSeal(folder, holder))
            bundles.insert(*owner);
    }
    bundles.erase(QByteArray()); // the outermost bundle is not nested in itself
    return bundles;
}

} // namespace

SealedBundle::SealedBundle(const BundleFolder &folder, const QByteArray &path)
    : m_folder(folder)
    , m_path(path)
    , m_sealPath(folder.hasFolder(joined(path, "Contents")) ? "Contents/_CodeSignature" : "_CodeSignature")
{
}

ZELError SealedBundle::readSeal(SealedItems &sealed, SealBudget &budget, const SignerPins &pins) const
{
    const QByteArrayList paths = sealFiles();
    const qint64 maxResourcesSize = qMin(MaxResourcesSize, budget.listBytes);
    QByteArray resources;
    QByteArray signature;
    if (const ZELError error = m_folder.read(joined(m_path, paths[0]), maxResourcesSize, resources))
        return error;
    if (const ZELError error =
            m_folder.read(joined(m_path, paths[1]), qMin(MaxSignatureSize, budget.signatureBytes), signature))
        return error;
    budget.listBytes -= resources.size();
    budget.signatureBytes -= signature.size();
    if (const ZELError error = verifySignature(resources, signature, pins, &budget.signers))
        return error;
    std::optional<SealedItems> items = fromPropertyList(resources);
    if (!items)
        return ZELError::withMessage(shownPath(paths[0]) + QLatin1String(" is malformed"));
    sealed = std::move(*items);
    return {};
}

ZELError SealedBundle::compare(const SealedItems &sealed, const SealedItems &all, SealBudget &budget) const
{
    if (const ZELError error = compareItems(sealed, all, m_path, sealFiles()))
        return error;
    return checkLinks(all, m_path, budget.linkNames);
}

ZELError verifyNested(const BundleFolder &folder, const SealedItems &items, SealBudget &budget)
{
    const std::set<QByteArray> holders = holdersOfSeals(items);
    if (holders.size() > MaxNestedBundles)
        return ZELError::withMessage(QStringLiteral("it has too many nested bundles"));
    for (const QByteArray &path : nestedBundles(folder, holders)) {
        const SealedBundle bundle(folder, path);
        SealedItems sealed;
        ZELError error = bundle.readSeal(sealed, budget);
        if (!error)
            error = bundle.compare(sealed, items, budget);
        if (error)
            return ZELError::withMessage(QLatin1String("the nested bundle ") + shownPath(path)
                                         + QLatin1String(" is not valid: ") + error.message);
    }
    return {};
}

} // namespace zel
