// The outline of a CMS signature: what a stranger's structure consists of, before anything in it is decoded.
// Decoding costs thousands of times what counting does; a certificate's key alone takes a tenth of a
// millisecond, and a quarter of a megabyte has room for a thousand certificates.
#pragma once

#include <QByteArray>

namespace zel {

struct SignatureOutline {
    /// Walks over the elements of `signature`, a `ContentInfo` of type `SignedData` in DER with definite
    /// lengths; the views are into it. Takes time in proportion to its length, and no memory.
    static SignatureOutline of(QByteArrayView signature);

    bool isWhole = false; ///< such a structure, with nothing missing and nothing besides
    bool isOfData = false; ///< what is signed is of the type `data`
    int strongDigests = 0; ///< of those that it announces for its signers, SHA-2
    int otherDigests = 0;
    int certificates = 0;
    int signers = 0;
    QByteArrayView content = {}; ///< what was signed, where it is inside; else null
};

} // namespace zel
