// Status codes of the store modules and their texts.
//
// Every store module reports a failure as one of the codes below, as a plain
// int: 0 is success, the codes are negative (the table starts at 0x8E76EA00
// read as a signed 32-bit value), and a few callers also pass small positive
// errno values through the same int.  The texts live in an NSPR error table
// named "imap_err"; once imap_InitializePRErrorTable has run,
// PR_ErrorToString(code, 0) gives the text of a code and PR_ErrorToName its
// symbolic name.
//
// Translations.  et_install_language_plugin(serverroot, languages) takes the
// list of installed languages (tags separated by commas, blanks, colons or
// semicolons, for example "en,fr,de").  Every tag other than "en" and
// "i-default" becomes an NSPR language: PR_ErrorLanguages() lists
// "i-default", "en", then these tags in the order given, and the position of
// a tag in that list is its PRLanguageCode (imap_err_language finds it).
// The texts of a language come from the file
//     <serverroot>/lang/<tag>/imap_err.txt
// of UTF-8 lines "NAME text": the symbolic name of a code, blanks, and the
// translated text up to the end of the line.  Empty lines and lines that
// begin with '#' are skipped, and so are names that the table doesn't know.
// A code without a translation, or a language whose file is missing, gives
// the English text.  Tags are letters, digits, '-' and '_' only; anything
// else in the list is ignored.
//
// Both installers run once per process (later calls do nothing and return
// what the first one did), and they may be called in either order.
#ifndef STORE_IMAP_ERR_H
#define STORE_IMAP_ERR_H

#include <prerror.h>

#define IMAP_ERR_TABLE_NAME "imap_err"
#define IMAP_ERR_BASE (-1904809472) /* 0x8E76EA00 */
#define IMAP_ERR_COUNT 49

#define IMAP_IOERROR                       (-1904809472)
#define IMAP_CONFIG_ERROR                  (-1904809471)
#define IMAP_PERMISSION_DENIED             (-1904809470)
#define IMAP_QUOTA_EXCEEDED                (-1904809469)
#define IMAP_QUOTA_EXCEEDED_PERSISTENT     (-1904809468)
#define IMAP_MESSAGE_TOO_LARGE             (-1904809467)
#define IMAP_USERFLAG_EXHAUSTED            (-1904809466)
#define IMAP_MAILBOX_BADFORMAT             (-1904809465)
#define IMAP_MAILBOX_NOTSUPPORTED          (-1904809464)
#define IMAP_MAILBOX_NONEXISTENT           (-1904809463)
#define IMAP_WRONG_MAILHOST                (-1904809462)
#define IMAP_MAILBOX_EXISTS                (-1904809461)
#define IMAP_MAILBOX_BADNAME               (-1904809460)
#define IMAP_MAILBOX_LOCKED                (-1904809459)
#define IMAP_MAILBOXLIST_NONEXISTENT       (-1904809458)
#define IMAP_MAILBOX_EXHAUSTED             (-1904809457)
#define IMAP_MAILBOX_PINNED                (-1904809456)
#define IMAP_PARTITION_UNKNOWN             (-1904809455)
#define IMAP_INVALID_IDENTIFIER            (-1904809454)
#define IMAP_INVALID_MSGNO                 (-1904809453)
#define IMAP_MESSAGE_CONTAINSNULL          (-1904809452)
#define IMAP_MESSAGE_CONTAINSNL            (-1904809451)
#define IMAP_MESSAGE_BADHEADER             (-1904809450)
#define IMAP_MESSAGE_NOBLANKLINE           (-1904809449)
#define IMAP_MESSAGE_EXHAUSTED             (-1904809448)
#define IMAP_QUOTAROOT_NONEXISTENT         (-1904809447)
#define IMAP_UNRECOGNIZED_CHARSET          (-1904809446)
#define IMAP_UNRECOGNIZED_LANGUAGE         (-1904809445)
#define IMAP_INVALID_USER                  (-1904809444)
#define IMAP_INVALID_LOGIN                 (-1904809443)
#define IMAP_ANONYMOUS_NOT_PERMITTED       (-1904809442)
#define IMAP_USER_NOT_PERMITTED            (-1904809441)
#define IMAP_TEMP_AUTH_FAILURE             (-1904809440)
#define IMAP_UNSUPPORTED_QUOTA             (-1904809439)
#define IMAP_NO_OVERQUOTA                  (-1904809438)
#define IMAP_NO_CLOSEQUOTA                 (-1904809437)
#define IMAP_NO_MSGGONE                    (-1904809436)
#define IMAP_NO_CHECKPERUSER               (-1904809435)
#define IMAP_NO_CHECKPRESERVE              (-1904809434)
#define IMAP_PROXY_UNAVAILABLE             (-1904809433)
#define IMAP_PROXY_ERROR                   (-1904809432)
#define IMAP_PROXY_DISCONNECTED            (-1904809431)
#define IMAP_PARTITION_FULL                (-1904809430)
#define IMAP_PROXY_ONLY                    (-1904809429)
#define IMAP_BYE_LOGOUT                    (-1904809428)
#define IMAP_BYE_SHUTDOWN                  (-1904809427)
#define IMAP_OK_COMPLETED                  (-1904809426)
#define IMAP_PREFIX_OTHER                  (-1904809425)
#define IMAP_PREFIX_PUBLIC                 (-1904809424)

// The table that imap_InitializePRErrorTable installs.
extern const struct PRErrorTable imap_err_error_table;

// Installs the table in NSPR's error service; gives what
// PR_ErrorInstallTable gave (0 on success).
PRErrorCode imap_InitializePRErrorTable(void);

// Announces the translations of the languages in the list, read from files
// below serverroot (null means ".").  See the top of this file.
void et_install_language_plugin(const char *serverroot, const char *languages);

// The PRLanguageCode of a language tag, by its place in PR_ErrorLanguages();
// PR_LANGUAGE_I_DEFAULT if the tag is null or not known.
PRLanguageCode imap_err_language(const char *tag);

#endif
