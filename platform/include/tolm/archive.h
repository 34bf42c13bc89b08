#ifndef TOLM_ARCHIVE_H_
#define TOLM_ARCHIVE_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A signed package being read. Its third 32-bit word is the last error code, unsigned: one of enum
 * tolmarchive_error. Not for use by two threads at once; different handles are independent.
 */
typedef struct tolmarchive tolmarchive;

/* Why the last call on a handle failed. The numbers never change their meaning. */
enum tolmarchive_error {
  TOLMARCHIVE_E_NONE = 0,     /* it did not */
  TOLMARCHIVE_E_INTERNAL = 1, /* a library failed; says nothing about the package */
  TOLMARCHIVE_E_MEMORY = 2,   /* memory is exhausted */
  TOLMARCHIVE_E_ARGUMENT = 3, /* a null pointer, or calls out of order */

  /* the file */
  TOLMARCHIVE_E_OPEN = 10,          /* it cannot be opened or is not a regular file */
  TOLMARCHIVE_E_READ = 11,          /* reading it failed */
  TOLMARCHIVE_E_NOT_A_PACKAGE = 12, /* no package trailer: another file, or cut short */
  TOLMARCHIVE_E_SIGNATURE_SIZE =
      13,                     /* the signature's length is 0, too large, or leaves no payload */
  TOLMARCHIVE_E_CHANGED = 14, /* it changed while it was being read */

  /* the signature */
  TOLMARCHIVE_E_KEYRING = 20,          /* no usable trusted certificates or revocations */
  TOLMARCHIVE_E_SIGNATURE_FORM = 21,   /* not one well-formed signature with one signer */
  TOLMARCHIVE_E_EMBEDDED_CONTENT = 22, /* it carries content of its own */
  TOLMARCHIVE_E_NO_SIGNER = 23,        /* no signer, or without the signer's certificate */
  TOLMARCHIVE_E_WEAK_DIGEST = 24,      /* a digest weaker than SHA-256 or a key too short */
  TOLMARCHIVE_E_WRONG_USAGE = 25,      /* the certificate is not for code signing */
  TOLMARCHIVE_E_UNTRUSTED = 26,        /* the certificate leads to no trusted one */
  TOLMARCHIVE_E_EXPIRED = 27,          /* the certificate, or one above it, has expired */
  TOLMARCHIVE_E_NOT_YET_VALID = 28,    /* the certificate, or one above it, is not valid yet */
  TOLMARCHIVE_E_REVOKED = 29,          /* the certificate, or one above it, was revoked */
  TOLMARCHIVE_E_BAD_SIGNATURE = 30,    /* the signature is not one over this payload */
  TOLMARCHIVE_E_OUT_OF_SCOPE = 31,     /* the signer's certificate is for other databases */

  /* what the package says it is */
  TOLMARCHIVE_E_PAYLOAD = 40,       /* not an archive that is read here, or a damaged one */
  TOLMARCHIVE_E_NO_SEAL = 41,       /* the first member is not .tolmpkg */
  TOLMARCHIVE_E_BAD_SEAL = 42,      /* .tolmpkg does not give name, kind and version */
  TOLMARCHIVE_E_WRONG_NAME = 43,    /* sealed for another name than the file's */
  TOLMARCHIVE_E_WRONG_KIND = 44,    /* a delta for a full package or the reverse */
  TOLMARCHIVE_E_WRONG_VERSION = 45, /* sealed for another version than the file's */
  TOLMARCHIVE_E_NO_MEMBERS = 46,    /* nothing in it */
  TOLMARCHIVE_E_NO_MEMBER = 47,     /* a member that was asked for is not in it */

  /* members */
  TOLMARCHIVE_E_MEMBER_TYPE = 50,  /* neither file, directory, symbolic nor hard link */
  TOLMARCHIVE_E_MEMBER_PATH = 51,  /* absolute, with "..", empty or reserved */
  TOLMARCHIVE_E_HARD_LINK = 52,    /* a hard link with a body, or to no file of the destination */
  TOLMARCHIVE_E_THROUGH_LINK = 53, /* a symbolic link on the way */
  TOLMARCHIVE_E_IN_THE_WAY = 54,   /* a directory for a file in the destination, or the reverse */

  /* the destination */
  TOLMARCHIVE_E_NO_SPACE = 60, /* not enough room, known before or met while writing */
  TOLMARCHIVE_E_WRITE = 61     /* writing failed for another reason */
};

/*
 * A handle that extracts into the existing directory `destination`. Null when the directory cannot
 * be opened or memory is exhausted. The caller frees it.
 */
TOLM_PLATFORM_API tolmarchive* tolmarchive_init(const char* destination);

/*
 * Opens `package` and verifies it whole against the certificates in
 * /usr/tolm/etc/keyring/<key_type>.pem and, where they exist, the revocations in
 * /usr/tolm/etc/keyring/<key_type>.crl.pem and /var/lib/data_update/revocations.pem, the newer one
 * of two lists of one authority; nothing of it is parsed before. A package whose file is called
 * <name>_v<N>, <name>_d<N> or <name>_debug must be sealed as that. Returns non-zero on success, 0
 * on failure with the handle's error code set and the reason in the system log. Once per handle.
 */
TOLM_PLATFORM_API int tolmarchive_open_with_keytype(tolmarchive* handle, const char* package,
                                                    int key_type);

/*
 * Extracts the members named in the null-terminated list, or every member when the list is null.
 * `flags` belongs to the appliance and has no effect here. Existing files are replaced, never
 * written in place. Members that may not be extracted and a lack of room are found before anything
 * is written; members extracted before a later failure stay. Returns non-zero on success, 0 on
 * failure with the handle's error code set and the reason in the system log.
 */
TOLM_PLATFORM_API int tolmarchive_extract_multiple(tolmarchive* handle, const char* const* members,
                                                   int flags);

/*
 * While `cancelled` is non-zero, packages that are being verified or extracted are given up at the
 * next block, and others at their first: those calls fail with TOLMARCHIVE_E_READ, and
 * TLIBCErrGet() is ECANCELED. 0 allows them again. Members extracted before stay.
 *
 * An optional addition: programs refer to it weakly and go on without it where a platform lacks it.
 * May be called from any thread, not from a signal handler. Waits for nothing.
 */
TOLM_PLATFORM_API void tolmarchive_cancel(int cancelled);

/*
 * Why the last call on the handle failed, in words for people: one line of UTF-8 without control
 * characters, which begins with 'signed by "<subject>", ' where the signer is the reason. Empty
 * when it did not fail. Valid until the next call on the handle. A platform may lack this function.
 */
TOLM_PLATFORM_API const char* tolmarchive_error_detail(const tolmarchive* handle);

/* Releases the handle and everything it holds; null is ignored. */
TOLM_PLATFORM_API void tolmarchive_free(tolmarchive* handle);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_ARCHIVE_H_ */
