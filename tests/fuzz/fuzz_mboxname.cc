// Feeds arbitrary bytes to the folder name operations: the policy check,
// external and internal names in both views, folder directories and back,
// and the owner helpers. A name that passes the policy check must come back
// unchanged from its directory, and an external name must read back as the
// internal name it was made from.
//
// Input: the whole text is the name; if it holds a line feed, the text in
// front of the first one is the user id and the rest the name.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>

#include "store/mboxname.h"
#include "store/storeutil.h"

namespace {

char instance_dir[] = "/tmp/fuzz_mboxname.XXXXXX";

void remove_instance()
{
    char cmd[sizeof instance_dir + 16];
    snprintf(cmd, sizeof cmd, "rm -rf %s", instance_dir);
    if (system(cmd) != 0) fprintf(stderr, "could not remove %s\n", instance_dir);
}

// Checks that name comes back from its directory under root.
void check_path_roundtrip(const char *name)
{
    static const char root[] = "/p";
    char path[MAX_MAILBOX_PATH];
    if (mboxname_getpath(name, root, path) != 0) abort();  // a short name always fits
    const char *enc = path + sizeof root;  // behind "/p/"
    const char *front = "";
    if (strncmp(name, "user/", 5) == 0) {
        if (strncmp(enc, "=user", 5) != 0) abort();
        enc += 5 + MBOXNAME_HASH_SIZE - 1;
        front = "user/";
    }
    char back[MAX_MAILBOX_NAME];
    if (mboxname_frompath(enc, back) != 0) abort();
    if (strncmp(name, front, strlen(front)) != 0 || strcmp(name + strlen(front), back) != 0)
        abort();
}

}  // namespace

// A small instance whose configuration names a default domain, so that
// canonical ids are part of what runs.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    char conf[sizeof instance_dir + 32];
    if (!mkdtemp(instance_dir)) return 0;
    snprintf(conf, sizeof conf, "%s/config", instance_dir);
    mkdir(conf, 0700);
    strcat(conf, "/store.conf");
    if (FILE *f = fopen(conf, "w")) {
        fputs("service.defaultdomain: example.com\n", f);
        fclose(f);
    }
    setenv("STORE_INSTANCEDIR", instance_dir, 1);
    atexit(remove_instance);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';
    const char *userid = "fuzz";
    char *name = text, *nl = strchr(text, '\n');
    if (nl) {
        *nl = '\0';
        userid = text;
        name = nl + 1;
    }

    int policy = mboxname_policycheck(name);
    if (policy == 0 && strlen(name) < MAX_MAILBOX_NAME) check_path_roundtrip(name);

    char path[MAX_MAILBOX_PATH], decoded[MAX_MAILBOX_NAME], shown[MAX_MAILBOX_EXTERNAL];
    (void)mboxname_getpath(name, "/some/partition", path);
    (void)mboxname_frompath(name, decoded);
    (void)mboxname_toexternal(name, 0, userid, shown);

    for (int view : {-1, 0}) {
        for (const char *uid : {userid, (const char *)nullptr}) {
            char internal[MAX_MAILBOX_NAME], external[MAX_MAILBOX_EXTERNAL], back[MAX_MAILBOX_NAME];
            if (mboxname_tointernal(name, view, uid, internal) != 0) continue;
            if (strlen(internal) >= MAX_MAILBOX_NAME) abort();
            if (mboxname_toexternal(internal, view, uid, external) == 0) {
                if (mboxname_tointernal(external, view, uid, back) != 0 || strcmp(back, internal) != 0)
                    abort();
            }
            if (mboxname_policycheck(internal) == 0) check_path_roundtrip(internal);
        }
    }
    // An owner id that wasn't cut owns the name it came from.
    char owner[MBOXNAME_OWNER_SIZE], owned[MAX_MAILBOX_NAME], canon[MAX_MAILBOX_NAME];
    const char *own = mboxname_owner(name, owner);
    if (own && strlen(own) < MBOXNAME_OWNER_SIZE - 1 && !mboxname_userownsmailbox(own, name))
        abort();
    const char *sub = mboxname_mailbox(name);
    if (sub && (sub < name || sub > name + strlen(name))) abort();
    mboxname_toownedmailbox(name, userid, owned);
    if (strlen(owned) >= MAX_MAILBOX_NAME) abort();
    snprintf(canon, sizeof canon, "%s", name);
    if (strlen(store_canonifymboxname(canon)) > strlen(name)) abort();

    free(text);
    return 0;
}
