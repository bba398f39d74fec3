// Folder names: external and internal forms, folder directories, owners
// and the policy on names that may be created. Pure string work on caller
// memory; see mboxname.h.
#include "store/mboxname.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "store/imap_err.h"
#include "store/storeutil.h"
#include "support/storeglob.h"

namespace {

const char *const prefix_admin[3] = {"", "user", "public"};
const char *const prefix_user[3] = {"", "Shared Folders/User", "Shared Folders/Public"};

const char hash_digits[] = "0123456789abcdef";

// Base64 digits of a modified UTF-7 run; 127 marks a byte that is no digit
// (the terminating NUL and "-" among them).
#define XX 127
const unsigned char index_mod64[256] = {
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,  // 0x00
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,  // 0x10
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, 62, 63, XX, XX, XX,  // 0x20 + ,
    52, 53, 54, 55, 56, 57, 58, 59, 60, 61, XX, XX, XX, XX, XX, XX,  // 0x30 0-9
    XX, 0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14,  // 0x40 A-O
    15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, XX, XX, XX, XX, XX,  // 0x50 P-Z
    XX, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40,  // 0x60 a-o
    41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, XX, XX, XX, XX, XX,  // 0x70 p-z
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,  // 0x80
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
    XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX, XX,
};
#undef XX

// Names refused whole by the policy, tried in this order.
const char *const refused_patterns[] = {
    "",         // the empty name
    "*\t*",     // a tab anywhere
    "*\n*",     // a line feed anywhere
    "/*",       // a leading "/"
    "*/",       // a trailing "/"
    "*//*",     // an empty component
    "user",     // the bare word user
};

// Characters that stand in a name outside an encoded run.
inline bool plain_char_ok(unsigned char c)
{
    return c >= 0x20 && c <= 0x7E && c != '%' && c != '*' && c != '?';
}

// A 16-bit unit of an encoded run that may stand there: characters below
// 0x80 are written plainly, and surrogates are refused.
inline bool unit_ok(unsigned unit)
{
    unit &= 0xFFFF;
    return unit >= 0x80 && (unit & 0xF800) != 0xD800;
}

// Checks the encoded run that starts behind an "&" at *pp (which is not
// "-"). Each base64 digit adds 6 bits; every 16 bits make a unit, which
// must pass unit_ok. The closing "-" may only stand where the bits left
// over are fewer than 6 and all zero, that is behind 3, 6 or 8 digits of
// a group of 8. On success *pp points behind the closing "-".
bool check_run(const char **pp)
{
    const unsigned char *p = (const unsigned char *)*pp;
    uint32_t bits = 0;
    int nbits = 0;
    bool any_unit = false;
    for (; *p != '-'; p++) {
        unsigned digit = index_mod64[*p];
        if (digit == 127) return false;
        bits = (bits << 6) | digit;
        nbits += 6;
        if (nbits >= 16) {
            nbits -= 16;
            if (!unit_ok(bits >> nbits)) return false;
            bits &= (1u << nbits) - 1;
            any_unit = true;
        }
    }
    if (!any_unit || nbits >= 6 || bits != 0) return false;
    *pp = (const char *)(p + 1);  // behind the "-"
    return true;
}

// Whether text starts with prefix as a whole component: the prefix is
// followed by "/" or the end. An empty prefix never counts.
size_t starts_with_component(const char *text, const char *prefix)
{
    size_t n = strlen(prefix);
    if (n == 0 || strncmp(text, prefix, n) != 0) return 0;
    return (text[n] == '/' || text[n] == '\0') ? n : 0;
}

// Whether the first n characters of text are a leading whole component of
// prefix: prefix starts with them and goes on with "/" or ends there.
bool is_prefix_component(const char *text, size_t n, const char *prefix)
{
    if (n == 0 || strncmp(text, prefix, n) != 0) return false;
    return prefix[n] == '/' || prefix[n] == '\0';
}

}  // namespace

const char *mboxname_prefix(int kind, int prefix_view)
{
    if (kind < 0 || kind > 2) return nullptr;
    return prefix_view == -1 ? prefix_admin[kind] : prefix_user[kind];
}

int mboxname_tointernal(const char *name, int prefix_view, const char *userid, char *out)
{
    out[0] = '\0';
    if (!name) return IMAP_MAILBOX_BADNAME;
    const char *slash = strchr(name, '/');
    size_t n = slash ? (size_t)(slash - name) : strlen(name);
    bool maybe_personal = true;

    // The caller's inbox.
    if (strcasecmp(name, "inbox") == 0) {
        if (!userid || strchr(userid, '/') || strlen(userid) + 6 > MAX_MAILBOX_NAME)
            return IMAP_MAILBOX_BADNAME;
        snprintf(out, MAX_MAILBOX_NAME, "user/%s", userid);
        store_canonifymboxname(out);
        return 0;
    }

    // Other users' folders.
    const char *other = mboxname_prefix(1, prefix_view);
    size_t plen = starts_with_component(name, other);
    if (plen) {
        const char *rest = name + plen;
        if (strlen(rest) + 5 > MAX_MAILBOX_NAME) return IMAP_MAILBOX_BADNAME;
        snprintf(out, MAX_MAILBOX_NAME, "user%s", rest);
        // Another user's top folder is addressed as prefix + "/id/INBOX".
        if (!*rest || !strchr(rest + 1, '/')) return IMAP_MAILBOX_BADNAME;
        char *second = strchr(out + 5, '/');
        if (strcasecmp(second, "/inbox") == 0) *second = '\0';
        store_canonifymboxname(out);
        return 0;
    }
    if (is_prefix_component(name, n, other)) maybe_personal = false;

    // Public folders.
    const char *pub = mboxname_prefix(2, prefix_view);
    plen = starts_with_component(name, pub);
    if (plen) {
        const char *rest = name + plen;
        if (strlen(rest) + 7 > MAX_MAILBOX_NAME) return IMAP_MAILBOX_BADNAME;
        snprintf(out, MAX_MAILBOX_NAME, "public%s", rest);
        return 0;
    }
    if (is_prefix_component(name, n, pub)) maybe_personal = false;

    // A personal folder of the caller.
    if (!maybe_personal || !userid || strchr(userid, '/') || name[0] == '#' || name[0] == '~' ||
        strlen(name) + strlen(userid) + 7 > MAX_MAILBOX_NAME)
        return IMAP_MAILBOX_BADNAME;
    snprintf(out, MAX_MAILBOX_NAME, "%s%s/%s", "user/", userid, name);
    return 0;
}

int mboxname_toexternal(const char *name, int prefix_view, const char *userid, char *out)
{
    out[0] = '\0';
    if (!name) return IMAP_MAILBOX_BADNAME;
    int len;
    if (strncmp(name, "user/", 5) == 0) {
        const char *id = name + 5;
        const char *path = strchr(id, '/');
        if (prefix_view != -1 && userid && mboxname_userownsmailbox(userid, name)) {
            len = snprintf(out, MAX_MAILBOX_EXTERNAL, "%s", path ? path + 1 : "INBOX");
        } else {
            len = snprintf(out, MAX_MAILBOX_EXTERNAL, "%s/%s%s", mboxname_prefix(1, prefix_view),
                           id, path ? "" : "/INBOX");
        }
    } else if (strncmp(name, "public/", 7) == 0) {
        len = snprintf(out, MAX_MAILBOX_EXTERNAL, "%s%s", mboxname_prefix(2, prefix_view),
                       name + 6);
    } else {
        return IMAP_MAILBOX_BADNAME;
    }
    // Only a form that reads back as this very name is an external name of
    // it: this refuses the personal names that the personal namespace can't
    // hold and ids that canonification would change.
    char back[MAX_MAILBOX_NAME];
    if (len < 0 || len >= MAX_MAILBOX_EXTERNAL ||
        mboxname_tointernal(out, prefix_view, userid, back) != 0 || strcmp(back, name) != 0) {
        out[0] = '\0';
        return IMAP_MAILBOX_BADNAME;
    }
    return 0;
}

void mboxname_tohash(const char *text, size_t len, char *out)
{
    if (len == 0) len = strlen(text);
    uint32_t h = 0;
    for (size_t i = 0; i < len; i++) h = h * 31u + (uint32_t)(int32_t)(signed char)text[i];
    out[0] = '/';
    out[1] = hash_digits[h & 0xF];
    out[2] = hash_digits[(h >> 4) & 0x7];
    out[3] = '/';
    out[4] = hash_digits[(h >> 7) & 0xF];
    out[5] = hash_digits[(h >> 11) & 0x7];
    out[6] = '/';
    out[7] = '\0';
}

int mboxname_getpath(const char *name, const char *root, char *out)
{
    size_t rlen = strlen(root);
    // Such a root would fail the first check below anyway; refusing it
    // before the copy keeps every path inside MAX_MAILBOX_PATH.
    if (rlen + 1 > MBOXNAME_PATH_LIMIT) return IMAP_MAILBOX_BADNAME;
    memcpy(out, root, rlen);
    size_t o = rlen;
    out[o++] = '/';

    const char *p = name;
    if (strncmp(name, "user/", 5) == 0) {
        memcpy(out + o, "=user", 5);
        o += 5;
        const char *id = name + 5;
        const char *end = strchr(id, '/');
        mboxname_tohash(id, end ? (size_t)(end - id) : strlen(id), out + o);
        o += MBOXNAME_HASH_SIZE - 1;
        p = id;
    }
    out[o++] = '=';

    for (; *p; p++) {
        if (o > MBOXNAME_PATH_LIMIT) return IMAP_MAILBOX_BADNAME;
        char c = *p;
        const char *code = nullptr;
        switch (c) {
        case '/': code = "/="; break;
        case '+': code = "%a"; break;
        case '\\': code = "%b"; break;
        case ':': code = "%c"; break;
        case '.': code = "%d"; break;
        case '%': code = "%p"; break;
        case '~': code = "%t"; break;
        default: break;
        }
        if (code) {
            out[o++] = code[0];
            out[o++] = code[1];
        } else if (c >= 'A' && c <= 'Z') {
            out[o++] = '+';
            out[o++] = c;
        } else {
            out[o++] = c;
        }
    }
    out[o] = '\0';
    return 0;
}

int mboxname_frompath(const char *path, char *out)
{
    out[0] = '\0';
    if (!path || path[0] != '=') return IMAP_MAILBOX_BADNAME;
    size_t o = 0;
    for (const char *p = path + 1; *p; p++) {
        if (o >= MAX_MAILBOX_NAME - 1) {
            out[0] = '\0';
            return IMAP_MAILBOX_BADNAME;
        }
        char c = *p;
        if (c == '%') {
            switch (*++p) {
            case 'a': c = '+'; break;
            case 'b': c = '\\'; break;
            case 'c': c = ':'; break;
            case 'd': c = '.'; break;
            case 'p': c = '%'; break;
            case 't': c = '~'; break;
            default:  // never written by mboxname_getpath (also a "%" at the end)
                out[0] = '\0';
                return IMAP_MAILBOX_BADNAME;
            }
        } else if (c == '+') {
            c = *++p;
            if (!c) {
                out[0] = '\0';
                return IMAP_MAILBOX_BADNAME;
            }
            if (c >= 'a' && c <= 'z') c = (char)(c - 'a' + 'A');
        } else if (c == '/') {
            if (*++p != '=') {
                out[0] = '\0';
                return IMAP_MAILBOX_BADNAME;
            }
        }
        out[o++] = c;
    }
    out[o] = '\0';
    return 0;
}

char *mboxname_toownedmailbox(const char *path, const char *userid, char *out)
{
    if (path && *path)
        snprintf(out, MAX_MAILBOX_NAME, "user/%s/%s", userid, path);
    else
        snprintf(out, MAX_MAILBOX_NAME, "user/%s", userid);
    return out;
}

int mboxname_userownsmailbox(const char *userid, const char *name)
{
    if (!userid || !name || strchr(userid, '/')) return 0;
    if (strncmp(name, "user/", 5) != 0) return 0;
    size_t n = strlen(userid);
    if (strncmp(name + 5, userid, n) != 0) return 0;
    char next = name[5 + n];
    return next == '/' || next == '\0';
}

char *mboxname_owner(const char *name, char *out)
{
    if (!name || strncmp(name, "user/", 5) != 0) return nullptr;
    const char *id = name + 5;
    size_t n = strcspn(id, "/");
    if (n > MBOXNAME_OWNER_SIZE - 1) n = MBOXNAME_OWNER_SIZE - 1;
    memcpy(out, id, n);
    out[n] = '\0';
    return out;
}

const char *mboxname_mailbox(const char *name)
{
    if (!name || strncmp(name, "user/", 5) != 0) return nullptr;
    const char *slash = strchr(name + 5, '/');
    return slash ? slash + 1 : nullptr;
}

int mboxname_policycheck(const char *name)
{
    if (!name || strlen(name) > MAX_MAILBOX_NAME) return IMAP_MAILBOX_BADNAME;

    for (const char *pattern : refused_patterns) {
        storeglob *g = glob_init_suppress(pattern, 0, nullptr);
        int match = glob_test(g, name, 0, nullptr);
        glob_free(&g);
        if (match != -1) return IMAP_MAILBOX_BADNAME;
    }

    if (strncmp(name, "user/", 5) == 0) {
        // No folder "inbox" directly below a user's root: the root is the inbox.
        const char *rest = strchr(name + 5, '/');
        if (rest && strncasecmp(rest, "/inbox", 6) == 0 && (rest[6] == '\0' || rest[6] == '/'))
            return IMAP_MAILBOX_BADNAME;
    } else if (strncmp(name, "public/", 7) != 0) {
        return IMAP_MAILBOX_BADNAME;
    }

    bool just_encoded = false;
    const char *p = name;
    while (*p) {
        if (*p != '&') {
            if (!plain_char_ok((unsigned char)*p)) return IMAP_MAILBOX_BADNAME;
            just_encoded = false;
            p++;
            continue;
        }
        p++;
        if (*p == '-') {  // "&-", the ampersand itself
            just_encoded = false;
            p++;
            continue;
        }
        // Two runs side by side would have been written as one.
        if (just_encoded) return IMAP_MAILBOX_BADNAME;
        if (!check_run(&p)) return IMAP_MAILBOX_BADNAME;
        just_encoded = true;
    }
    return 0;
}
