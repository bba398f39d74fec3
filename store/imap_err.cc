// The error table of the store and its translations.
#include "store/imap_err.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <prinit.h>

static const struct PRErrorMessage imap_err_messages[IMAP_ERR_COUNT] = {
    {"IMAP_IOERROR", "System I/O error.  Administrator, check server log for details."},
    {"IMAP_CONFIG_ERROR", "Configuration error"},
    {"IMAP_PERMISSION_DENIED", "Permission denied"},
    {"IMAP_QUOTA_EXCEEDED", "Over quota"},
    {"IMAP_QUOTA_EXCEEDED_PERSISTENT", "Over quota"},
    {"IMAP_MESSAGE_TOO_LARGE", "Message too large"},
    {"IMAP_USERFLAG_EXHAUSTED", "Too many keywords in mailbox"},
    {"IMAP_MAILBOX_BADFORMAT", "Mailbox has an invalid format"},
    {"IMAP_MAILBOX_NOTSUPPORTED", "Operation is not supported on mailbox"},
    {"IMAP_MAILBOX_NONEXISTENT", "Mailbox does not exist"},
    {"IMAP_WRONG_MAILHOST", "Mailbox is on a different server"},
    {"IMAP_MAILBOX_EXISTS", "Mailbox already exists"},
    {"IMAP_MAILBOX_BADNAME", "Invalid mailbox name"},
    {"IMAP_MAILBOX_LOCKED", "Mailbox is busy"},
    {"IMAP_MAILBOXLIST_NONEXISTENT", "Mailbox list does not exist"},
    {"IMAP_MAILBOX_EXHAUSTED", "Too many mailboxes"},
    {"IMAP_MAILBOX_PINNED", "Mailbox is pinned"},
    {"IMAP_PARTITION_UNKNOWN", "Unknown/invalid partition"},
    {"IMAP_INVALID_IDENTIFIER", "Invalid identifier"},
    {"IMAP_INVALID_MSGNO", "Invalid message number"},
    {"IMAP_MESSAGE_CONTAINSNULL", "Message contains NUL characters"},
    {"IMAP_MESSAGE_CONTAINSNL", "Message contains bare newlines"},
    {"IMAP_MESSAGE_BADHEADER", "Message contains invalid header"},
    {"IMAP_MESSAGE_NOBLANKLINE", "Message has no header/body separator"},
    {"IMAP_MESSAGE_EXHAUSTED", "Too many messages"},
    {"IMAP_QUOTAROOT_NONEXISTENT", "Quota root does not exist"},
    {"IMAP_UNRECOGNIZED_CHARSET", "Unrecognized character set"},
    {"IMAP_UNRECOGNIZED_LANGUAGE", "Unrecognized language"},
    {"IMAP_INVALID_USER", "Invalid user"},
    {"IMAP_INVALID_LOGIN", "Login incorrect"},
    {"IMAP_ANONYMOUS_NOT_PERMITTED", "Anonymous login is not permitted"},
    {"IMAP_USER_NOT_PERMITTED", "User not permitted"},
    {"IMAP_TEMP_AUTH_FAILURE", "Authentication server temporarily unavailable"},
    {"IMAP_UNSUPPORTED_QUOTA", "Unsupported quota resource"},
    {"IMAP_NO_OVERQUOTA", "Mailbox is over quota"},
    {"IMAP_NO_CLOSEQUOTA", "Mailbox is at %d%% of quota"},
    {"IMAP_NO_MSGGONE", "Message no longer exists"},
    {"IMAP_NO_CHECKPERUSER", "Unable to checkpoint per-user flags"},
    {"IMAP_NO_CHECKPRESERVE", "Unable to preserve per-user flags"},
    {"IMAP_PROXY_UNAVAILABLE", "Server hosting this mailbox is not available"},
    {"IMAP_PROXY_ERROR", "Error parsing backend IMAP server response"},
    {"IMAP_PROXY_DISCONNECTED", "The backend IMAP server has disconnected"},
    {"IMAP_PARTITION_FULL", "Store partition is full"},
    {"IMAP_PROXY_ONLY", "Server is not configured for local users"},
    {"IMAP_BYE_LOGOUT", "LOGOUT received"},
    {"IMAP_BYE_SHUTDOWN", "System shutting down"},
    {"IMAP_OK_COMPLETED", "Completed"},
    {"IMAP_PREFIX_OTHER", "Shared Folders/User"},
    {"IMAP_PREFIX_PUBLIC", "Shared Folders/Public"},
};

const struct PRErrorTable imap_err_error_table = {
    imap_err_messages, IMAP_ERR_TABLE_NAME, IMAP_ERR_BASE, IMAP_ERR_COUNT};

static PRCallOnceType table_once;
static PRErrorCode table_result;

static PRStatus install_table(void) {
    table_result = PR_ErrorInstallTable(&imap_err_error_table);
    return PR_SUCCESS;
}

PRErrorCode imap_InitializePRErrorTable(void) {
    PR_CallOnce(&table_once, install_table);
    return table_result;
}

/*
 * Translations.
 *
 * One lang_texts per installed language besides "en": the (name, text)
 * pairs of its file, in file order.  When NSPR announces our table, the
 * pairs are resolved into one array of texts per language, indexed by row.
 * All of this lives as long as the process, since NSPR hands the texts out
 * without copying them.
 */

struct lang_pair {
    char *name;
    char *text;
};

struct lang_texts {
    struct lang_pair *pairs;
    int npairs;
};

// The plug-in's own state, handed to the NSPR callbacks.
struct PRErrorCallbackPrivate {
    int nlangs;                // languages after "i-default" and "en"
    struct lang_texts *langs;  // nlangs entries
};

// Per table: texts[lang * n_msgs + row], null where there is no translation.
struct PRErrorCallbackTablePrivate {
    int nmsgs;
    const char **texts;
};

static PRCallOnceType lang_once;
static struct PRErrorCallbackPrivate lang_state;
static const char **lang_tags;  // "i-default", "en", the others, null

static int valid_tag(const char *tag, size_t len) {
    if (len == 0 || len > 32) return 0;
    for (size_t i = 0; i < len; i++) {
        unsigned char c = (unsigned char)tag[i];
        if (!isalnum(c) && c != '-' && c != '_') return 0;
    }
    return 1;
}

// Reads "NAME text" lines; a file that can't be opened gives no pairs.
static void read_lang_file(const char *path, struct lang_texts *out) {
    out->pairs = NULL;
    out->npairs = 0;
    FILE *f = fopen(path, "r");
    if (!f) return;

    int room = 0;
    char *line = NULL;
    size_t linecap = 0;
    ssize_t n;
    while ((n = getline(&line, &linecap, f)) >= 0) {
        while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) line[--n] = '\0';
        char *p = line;
        while (*p == ' ' || *p == '\t') p++;
        if (*p == '\0' || *p == '#') continue;
        char *name = p;
        while (*p && *p != ' ' && *p != '\t') p++;
        if (*p == '\0') continue;  // a name without a text
        *p++ = '\0';
        while (*p == ' ' || *p == '\t') p++;
        if (*p == '\0') continue;

        if (out->npairs == room) {
            int newroom = room ? room * 2 : 16;
            struct lang_pair *np = (struct lang_pair *)realloc(
                out->pairs, (size_t)newroom * sizeof(struct lang_pair));
            if (!np) break;
            out->pairs = np;
            room = newroom;
        }
        char *nm = strdup(name);
        char *tx = strdup(p);
        if (!nm || !tx) {
            free(nm);
            free(tx);
            break;
        }
        out->pairs[out->npairs].name = nm;
        out->pairs[out->npairs].text = tx;
        out->npairs++;
    }
    free(line);
    fclose(f);
}

static struct PRErrorCallbackTablePrivate *lang_newtable(
    const struct PRErrorTable *table, struct PRErrorCallbackPrivate *priv) {
    if (!priv || priv->nlangs <= 0 || !table->name ||
        strcmp(table->name, IMAP_ERR_TABLE_NAME) != 0 || table->n_msgs <= 0)
        return NULL;

    struct PRErrorCallbackTablePrivate *tp =
        (struct PRErrorCallbackTablePrivate *)malloc(sizeof(*tp));
    if (!tp) return NULL;
    tp->nmsgs = table->n_msgs;
    tp->texts = (const char **)calloc((size_t)priv->nlangs * (size_t)table->n_msgs,
                                      sizeof(const char *));
    if (!tp->texts) {
        free(tp);
        return NULL;
    }
    for (int l = 0; l < priv->nlangs; l++) {
        const struct lang_texts *lt = &priv->langs[l];
        for (int i = 0; i < lt->npairs; i++) {
            for (int row = 0; row < table->n_msgs; row++) {
                if (table->msgs[row].name &&
                    strcmp(table->msgs[row].name, lt->pairs[i].name) == 0) {
                    // A later line for the same name wins.
                    tp->texts[l * table->n_msgs + row] = lt->pairs[i].text;
                    break;
                }
            }
        }
    }
    return tp;
}

static const char *lang_lookup(PRErrorCode code, PRLanguageCode language,
                               const struct PRErrorTable *table,
                               struct PRErrorCallbackPrivate *priv,
                               struct PRErrorCallbackTablePrivate *tp) {
    if (!tp || !priv || language < 2) return NULL;
    PRLanguageCode l = language - 2;
    if (l >= (PRLanguageCode)priv->nlangs) return NULL;
    if (code < table->base || code - table->base >= tp->nmsgs) return NULL;
    return tp->texts[l * tp->nmsgs + (code - table->base)];
}

struct lang_args {
    const char *serverroot;
    const char *languages;
};

static PRStatus install_languages(void *arg) {
    const struct lang_args *a = (const struct lang_args *)arg;
    const char *root = a->serverroot ? a->serverroot : ".";
    const char *list = a->languages ? a->languages : "";

    // No more languages than characters in the list; two more for the fixed
    // ones and one for the null at the end.
    size_t maxlangs = strlen(list) + 1;
    const char **tags = (const char **)calloc(maxlangs + 3, sizeof(const char *));
    struct lang_texts *langs =
        (struct lang_texts *)calloc(maxlangs, sizeof(struct lang_texts));
    if (!tags || !langs) {
        free(tags);
        free(langs);
        return PR_SUCCESS;
    }
    tags[0] = "i-default";
    tags[1] = "en";
    int nlangs = 0;

    const char *p = list;
    while (*p) {
        while (*p && strchr(", \t;:", *p)) p++;
        const char *start = p;
        while (*p && !strchr(", \t;:", *p)) p++;
        size_t len = (size_t)(p - start);
        if (!valid_tag(start, len)) continue;
        char *tag = strndup(start, len);
        if (!tag) break;
        int known = 0;
        for (int i = 0; i < nlangs + 2; i++)
            if (strcasecmp(tags[i], tag) == 0) known = 1;
        if (known) {
            free(tag);
            continue;
        }
        size_t pathlen = strlen(root) + len + sizeof("/lang//imap_err.txt");
        char *path = (char *)malloc(pathlen);
        if (!path) {
            free(tag);
            break;
        }
        snprintf(path, pathlen, "%s/lang/%s/imap_err.txt", root, tag);
        read_lang_file(path, &langs[nlangs]);
        free(path);
        tags[2 + nlangs] = tag;
        nlangs++;
    }
    tags[2 + nlangs] = NULL;

    if (nlangs == 0) {
        // Only English: NSPR's own texts are all there is.
        free(tags);
        free(langs);
        return PR_SUCCESS;
    }
    lang_state.nlangs = nlangs;
    lang_state.langs = langs;
    lang_tags = tags;
    PR_ErrorInstallCallback(lang_tags, lang_lookup, lang_newtable, &lang_state);
    return PR_SUCCESS;
}

void et_install_language_plugin(const char *serverroot, const char *languages) {
    struct lang_args a = {serverroot, languages};
    PR_CallOnceWithArg(&lang_once, install_languages, &a);
}

PRLanguageCode imap_err_language(const char *tag) {
    if (!tag) return PR_LANGUAGE_I_DEFAULT;
    const char *const *langs = PR_ErrorLanguages();
    for (PRLanguageCode i = 0; langs && langs[i]; i++)
        if (strcasecmp(langs[i], tag) == 0) return i;
    return PR_LANGUAGE_I_DEFAULT;
}
