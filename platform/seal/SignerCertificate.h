// What makes a certificate, and the key in it, good enough to sign with.
//
// A certificate is a container of a key and a name here, and nobody's authority is asked. Two of its
// statements count all the same where signers are pinned, because each catches a fault that pins alone let
// pass:
//
// - what it is for: a certificate for web servers is no signer, for its key lies on the very machine that
//   pins are to make unnecessary to trust;
// - its dates, as of the time of the signature: a publisher who let a certificate end, and has taken its key
//   out of the safe, means it. A thief can give a wrong time in a seal, but a record's expires by itself.
#pragma once

#include "common/ZELError.h"

#include <QString>

#include <openssl/types.h>

namespace zel {

/// The certificate's subject, as "CN = Maker, O = ...".
QString subjectOf(const X509 *certificate);

/// SHA-256 of the certificate, lower-case hexadecimal: what pins are made of.
QString fingerprintOf(const X509 *certificate);

/// Whether two certificates are of one key, however each writes it: a point of a curve has several encodings.
bool haveOneKey(const X509 *first, const X509 *second);

/// Whether a key may sign: RSA with 2048 to 8192 bits and a short exponent, or an elliptic curve with 224 to
/// 521 bits.
bool canSign(const EVP_PKEY *key);

/// Why a certificate is not a signer's at a time: its dates, key usage or extended key usage. An empty time
/// is none.
ZELError checkSigner(const X509 *certificate, const ASN1_TIME *when);

} // namespace zel
