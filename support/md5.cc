/*
 * support/md5.cc - the password digest sent at sign-in and with account
 * commands.
 *
 * The service compares digests, so the form is fixed: MD5 of the password
 * bytes, as 32 lower-case hexadecimal digits. The digest comes from
 * OpenSSL's EVP interface, which is thread-safe; each call fetches the MD5
 * implementation anew, a cost that the few sign-in calls do not notice.
 */
#include <openssl/evp.h>

#include "arbor/support.h"

extern "C" {

/*
 * Returns out. A null text or a size below 1 digests the empty password.
 * Where OpenSSL refuses MD5 (a FIPS-only configuration) out holds an empty
 * string, logged at level 0, and the service will refuse the sign-in; the
 * process goes on.
 */
ARBOR_EXPORT char* MakeMD5Int64(const char* text, int32_t size, char* out) {
  if (out == nullptr) return out;
  static const char kHex[] = "0123456789abcdef";
  const bool empty = text == nullptr || size <= 0;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int md_len = 0;
  if (EVP_Digest(empty ? "" : text, empty ? 0 : static_cast<size_t>(size), md,
                 &md_len, EVP_md5(), nullptr) != 1 ||
      md_len != 16) {
    ARBOR_LOG(0, "MakeMD5Int64: MD5 unavailable");
    out[0] = '\0';
    return out;
  }
  for (unsigned int i = 0; i < md_len; ++i) {
    out[2 * i] = kHex[md[i] >> 4];
    out[2 * i + 1] = kHex[md[i] & 0xf];
  }
  out[2 * md_len] = '\0';
  return out;
}

}  // extern "C"
