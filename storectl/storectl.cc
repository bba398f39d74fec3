// storectl: an operator's command over the folders, rights and quota of
// store users.
//
//   storectl [-a] VERB USER [ARGUMENTS]
//
// Each verb acts as USER, with USER's rights, unless -a is given: then it
// acts as a site administrator. Folder names are as the user writes them:
// "INBOX" (any case) is the user's inbox, any other name a folder below it
// ("Lists/linux"). Output is one line per item, plain text, fields
// separated by a blank; errors go to standard error.
//
// The instance is the one STORE_INSTANCEDIR names; its store daemon must be
// running (the program refuses to start otherwise, status 75).
//
// Exit status (sysexits): 0 done; 64 usage, or a name that can't be a
// folder or user; 65 a value that isn't a number; 66 no such folder or
// user; 69 the store context did not come up; 73 the folder exists
// already, or the user has as many folders as allowed; 75 try again (the
// store is busy, not ready, or an I/O error); 77 the user lacks the
// rights; 70 any other failure of the store.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "objects/bkobj.h"
#include "store/autocreate.h"
#include "store/imap_err.h"
#include "store/mboxlist.h"
#include "store/mboxlist_acl.h"
#include "store/mboxlist_create.h"
#include "store/mboxlist_list.h"
#include "store/mboxlist_quota.h"
#include "store/mboxlist_rename.h"
#include "store/mboxlist_subs.h"
#include "store/mboxname.h"
#include "support/auth.h"

namespace {

const char USAGE[] =
    "usage: storectl [-a] VERB USER [ARGUMENTS]\n"
    "  list USER [PATTERN]                     the folders USER sees (own and shared), one a line\n"
    "  lsub USER [PATTERN]                     the folders USER subscribed to\n"
    "  create USER FOLDER                      create a folder (INBOX: provision the user)\n"
    "  delete USER FOLDER                      delete a folder and its messages (INBOX: the user)\n"
    "  rename USER OLD NEW [PARTITION]         rename a folder with its children (INBOX: its messages)\n"
    "  getacl USER FOLDER                      print the folder's ACL, one identifier a line\n"
    "  setacl USER FOLDER IDENTIFIER RIGHTS    set (RIGHTS), add (+RIGHTS), take away (-RIGHTS) or\n"
    "                                          remove (none) the rights of IDENTIFIER on a folder\n"
    "  subscribe|unsubscribe USER FOLDER       change the user's subscription to a folder\n"
    "  quota USER [LIMIT_KB [LIMIT_MESSAGES]]  print (or set) the user's quota; -1 is no limit\n"
    "  fixquota USER                           recount the user's usage from the folders\n"
    "  -a: act as a site administrator instead of as USER\n";

// What a verb is called with.
struct call {
    const char *user;
    const struct auth_state *auth;  // USER's rights, or auth_dontCheckAcl with -a
    char **args;                    // the arguments behind USER
    int nargs;
};

// The exit status of a store code, with its text on standard error.
int fail(const char *what, const char *name, int r) {
    fprintf(stderr, "storectl: %s %s: %s\n", what, name, PR_ErrorToString(r, 0));
    switch (r) {
    case IMAP_MAILBOX_NONEXISTENT:
    case IMAP_QUOTAROOT_NONEXISTENT:
        return 66;
    case IMAP_PERMISSION_DENIED:
        return 77;
    case IMAP_MAILBOX_EXISTS:
    case IMAP_MAILBOX_EXHAUSTED:
        return 73;
    case IMAP_MAILBOX_BADNAME:
    case IMAP_MAILBOX_NOTSUPPORTED:
    case IMAP_INVALID_IDENTIFIER:
    case IMAP_PARTITION_UNKNOWN:
        return 64;
    case IMAP_IOERROR:
    case IMAP_MAILBOX_LOCKED:
        return 75;
    default:
        return 70;
    }
}

// The internal name of the user's folder into out: 0 or an exit status.
int folder_name(const call &c, const char *folder, char *out) {
    if (!*folder || mboxname_tointernal(folder, 0, c.user, out) != 0 ||
        strncmp(out, "user/", 5) != 0) {
        fprintf(stderr, "storectl: not a folder name: user %s, folder %s\n", c.user, folder);
        return 64;
    }
    return 0;
}

int is_inbox(const char *folder) { return strcasecmp(folder, "INBOX") == 0; }

// One line per entry: what is known of its children, a blank, the name
// (which may hold blanks) as the user writes it.
int print_entry(const char *name, int matchlen, int childinfo, const char *, void *) {
    static const char *const kinds[] = {"unknown", "noinferiors", "none", "children"};
    const char *kind = childinfo >= CHILD_UNKNOWN && childinfo <= CHILD_SOME ? kinds[childinfo - 1] : "unknown";
    printf("%s %.*s\n", kind, matchlen, name);
    return 0;
}

int list(const call &c, int subscribed) {
    const char *pattern = c.nargs > 0 ? c.args[0] : "*";
    int r = subscribed ? mboxlist_findsub(pattern, MBOXLIST_FIND_CHILDINFO, 0, c.user, c.auth, print_entry,
                                          nullptr)
                       : mboxlist_findall(pattern, MBOXLIST_FIND_CHILDINFO, 0, c.user, c.auth, print_entry,
                                          nullptr);
    return r ? fail("cannot list the folders of", c.user, r) : 0;
}

int do_list(const call &c) { return list(c, 0); }
int do_lsub(const call &c) { return list(c, 1); }

int do_create(const call &c) {
    char name[MAX_MAILBOX_NAME];
    if (int s = folder_name(c, c.args[0], name)) return s;
    int r;
    if (is_inbox(c.args[0])) {
        // A user comes from the directory, with the welcome message; a
        // user the directory doesn't know (or a store without one) gets
        // an inbox with no limits from an administrator.
        if (mboxlist_lookup(name, nullptr, nullptr, nullptr, nullptr, nullptr) == 0)
            return fail("cannot create", c.args[0], IMAP_MAILBOX_EXISTS);
        r = autocreate(c.user, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
        if (r == IMAP_MAILBOX_NONEXISTENT || r == IMAP_CONFIG_ERROR) {
            if (c.auth != auth_dontCheckAcl) {
                fprintf(stderr, "storectl: %s has no directory entry: an administrator (-a) creates "
                                "the inbox without one\n", c.user);
                return 66;
            }
            r = mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, c.user, c.auth, QUOTA_UNLIMITED,
                                       QUOTA_UNLIMITED, 0, nullptr);
        }
    } else {
        r = mboxlist_createmailbox(name, MAILBOX_VERSION, nullptr, c.user, c.auth, QUOTA_UNLIMITED,
                                   QUOTA_UNLIMITED, 0, nullptr);
    }
    return r ? fail("cannot create", c.args[0], r) : 0;
}

int do_delete(const call &c) {
    char name[MAX_MAILBOX_NAME];
    if (int s = folder_name(c, c.args[0], name)) return s;
    if (is_inbox(c.args[0]) && c.auth != auth_dontCheckAcl) {
        fprintf(stderr, "storectl: a user's inbox goes with the whole user, deleted by an "
                        "administrator (-a)\n");
        return 77;
    }
    // An administrator deletes a user's inbox with all the user's folders.
    int r = mboxlist_deletemailbox(name, c.auth == auth_dontCheckAcl ? nullptr : c.user, c.auth);
    return r ? fail("cannot delete", c.args[0], r) : 0;
}

int do_rename(const call &c) {
    char oldname[MAX_MAILBOX_NAME], newname[MAX_MAILBOX_NAME];
    if (int s = folder_name(c, c.args[0], oldname)) return s;
    if (int s = folder_name(c, c.args[1], newname)) return s;
    const char *partition = c.nargs > 2 ? c.args[2] : nullptr;
    int r = mboxlist_renamemailbox(oldname, newname, partition,
                                   c.auth == auth_dontCheckAcl ? nullptr : c.user, c.auth);
    return r ? fail("cannot rename", c.args[0], r) : 0;
}

int do_setacl(const call &c) {
    char name[MAX_MAILBOX_NAME];
    if (int s = folder_name(c, c.args[0], name)) return s;
    const char *rights = strcmp(c.args[2], "none") == 0 ? nullptr : c.args[2];
    int r = mboxlist_setacl(name, c.args[1], rights, c.auth == auth_dontCheckAcl ? nullptr : c.user,
                            c.auth);
    return r ? fail("cannot change the ACL of", c.args[0], r) : 0;
}

// Subscribing needs the folder to be visible to the user; unsubscribing
// doesn't (a folder may be gone).
int change_sub(const call &c, int add) {
    char name[MAX_MAILBOX_NAME];
    if (int s = folder_name(c, c.args[0], name)) return s;
    if (add) {
        char *acl = nullptr;
        int r = mboxlist_lookup(name, nullptr, nullptr, nullptr, nullptr, &acl);
        if (!r && !(acl_myrights(c.auth, acl) & ACL_LOOKUP)) r = IMAP_MAILBOX_NONEXISTENT;
        free(acl);
        if (r) return fail("cannot subscribe to", c.args[0], r);
    }
    int r = mboxlist_changesub(name, c.user, nullptr, add ? MBOXLIST_SUB_ADD : 0);
    if (r) return fail(add ? "cannot subscribe to" : "cannot unsubscribe from", c.args[0], r);
    // The copy in "store.sub" follows at once: it is what brings the
    // subscriptions back after a loss of the database.
    mboxlist_checkpointSubs(c.user, 0, 0);
    return 0;
}

int do_subscribe(const call &c) { return change_sub(c, 1); }
int do_unsubscribe(const call &c) { return change_sub(c, 0); }

int do_getacl(const call &c) {
    char name[MAX_MAILBOX_NAME];
    if (int s = folder_name(c, c.args[0], name)) return s;
    char *acl = nullptr;
    int r = mboxlist_lookup(name, nullptr, nullptr, nullptr, nullptr, &acl);
    // Who may not see the folder doesn't learn that it exists.
    if (!r && c.auth != auth_dontCheckAcl && !(acl_myrights(c.auth, acl) & ACL_LOOKUP))
        r = IMAP_MAILBOX_NONEXISTENT;
    if (!r && c.auth != auth_dontCheckAcl && !(acl_myrights(c.auth, acl) & ACL_ADMIN))
        r = IMAP_PERMISSION_DENIED;
    if (r) {
        free(acl);
        return fail("cannot read the ACL of", c.args[0], r);
    }
    // The ACL is "identifier TAB rights TAB" for each entry.
    for (char *p = acl; p && *p;) {
        char *tab = strchr(p, '\t');
        if (!tab) break;
        char *end = strchr(tab + 1, '\t');
        printf("%.*s %.*s\n", (int)(tab - p), p, end ? (int)(end - tab - 1) : (int)strlen(tab + 1),
               tab + 1);
        p = end ? end + 1 : tab + 1 + strlen(tab + 1);
    }
    free(acl);
    return 0;
}

// A limit argument: kilobytes or messages, -1 for none. 0 or an exit status.
int limit_arg(const char *text, uint32_t *out) {
    char *end;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno || end == text || *end || v < -1 || v >= 0xFFFFFFFFLL) {
        fprintf(stderr, "storectl: not a limit: %s\n", text);
        return 65;
    }
    *out = v < 0 ? QUOTA_UNLIMITED : (uint32_t)v;
    return 0;
}

void print_limit(uint32_t v) {
    if (v == QUOTA_UNLIMITED)
        fputs(" none", stdout);
    else
        printf(" %u", v);
}

int do_quota(const call &c) {
    char root[MAX_MAILBOX_NAME];
    mboxname_toownedmailbox(nullptr, c.user, root);
    if (c.nargs > 0) {
        if (c.auth != auth_dontCheckAcl) {
            fprintf(stderr, "storectl: only an administrator (-a) sets quota\n");
            return 77;
        }
        struct quotadata q;
        int r = mboxlist_getquotaroot(root, &q, nullptr);
        uint32_t limit = q.limit, messages = q.limit_messages;
        if (int s = limit_arg(c.args[0], &limit)) return s;
        if (c.nargs > 1)
            if (int s = limit_arg(c.args[1], &messages)) return s;
        if (!r) r = mboxlist_setquota(root, limit, messages);
        if (r) return fail("cannot set the quota of", c.user, r);
    }
    struct quotadata q;
    int r = mboxlist_getquotaroot(root, &q, nullptr);
    if (r) return fail("cannot read the quota of", c.user, r);
    uint64_t used = quotadata_used(&q);
    // root, kilobytes used and allowed, messages in use and allowed, and
    // since when the root is over its threshold (0: it isn't).
    printf("%s %llu", root, (unsigned long long)((used + 1023) / 1024));
    print_limit(q.limit);
    printf(" %u", q.used_messages);
    print_limit(q.limit_messages);
    printf(" %u\n", q.over_since);
    return 0;
}

int do_fixquota(const call &c) {
    if (c.auth != auth_dontCheckAcl) {
        fprintf(stderr, "storectl: only an administrator (-a) recounts quota\n");
        return 77;
    }
    char root[MAX_MAILBOX_NAME];
    mboxname_toownedmailbox(nullptr, c.user, root);
    int changed = 0;
    int r = mboxlist_fixquota(root, &changed, QUOTA_KEEP, QUOTA_KEEP, 0);
    if (r) return fail("cannot recount the quota of", c.user, r);
    printf("%s %s\n", root, changed ? "fixed" : "correct");
    return 0;
}

const struct verb {
    const char *name;
    int minargs, maxargs;
    int (*run)(const call &);
} verbs[] = {
    {"list", 0, 1, do_list},      {"lsub", 0, 1, do_lsub},
    {"create", 1, 1, do_create},  {"delete", 1, 1, do_delete}, {"rename", 2, 3, do_rename},
    {"getacl", 1, 1, do_getacl},  {"setacl", 3, 3, do_setacl},
    {"subscribe", 1, 1, do_subscribe}, {"unsubscribe", 1, 1, do_unsubscribe},
    {"quota", 0, 2, do_quota},    {"fixquota", 0, 0, do_fixquota},
};

}  // namespace

int main(int argc, char **argv) {
    int admin = 0, c;
    while ((c = getopt(argc, argv, "+a")) != -1) {
        if (c != 'a') {
            fputs(USAGE, stderr);
            return 64;
        }
        admin = 1;
    }
    if (argc - optind < 2) {
        fputs(USAGE, stderr);
        return 64;
    }
    const verb *v = nullptr;
    for (const verb &candidate : verbs)
        if (strcmp(candidate.name, argv[optind]) == 0) v = &candidate;
    int nargs = argc - optind - 2;
    if (!v || nargs < v->minargs || nargs > v->maxargs) {
        if (!v) fprintf(stderr, "storectl: unknown verb %s\n", argv[optind]);
        fputs(USAGE, stderr);
        return 64;
    }
    const char *user = argv[optind + 1];
    char canon[AUTH_MAXIDENTIFIER];
    if (!*user || strchr(user, '/') || !auth_canonifyid(user, canon)) {
        fprintf(stderr, "storectl: not a user id: %s\n", user);
        return 64;
    }

    // The start of the folder database may end the process with its own
    // status (75 while the store daemon is not ready).
    BkContext *context = new BkContext("storectl", 0);
    int status = context->exitCode();
    if (context->isvalid()) {
        struct auth_state *state = admin ? nullptr : auth_newstate(canon, nullptr, 0);
        call call = {canon, admin ? auth_dontCheckAcl : state, argv + optind + 2, nargs};
        status = v->run(call);
        auth_freestate(state);
    } else {
        fputs("storectl: the store context did not come up (see the log)\n", stderr);
    }
    if (fflush(stdout) != 0 && status == 0) status = 74;
    delete context;
    return status;
}
