// Quota rows: usage, limits, the over and under state of a root, warnings
// and the directory status. See the header for the model.
#include "store/mboxlist_quota.h"

#include <db.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include "store/append.h"
#include "store/autocreate.h"
#include "store/imap_err.h"
#include "store/mboxname.h"
#include "store/storenotify.h"
#include "store/storeutil.h"
#include "support/config.h"
#include "support/log.h"
#include "support/xmalloc.h"

uint32_t mboxlist_fixquota_reconstructed = 0;

namespace {

int put_row(DB_TXN *txn, const char *root, struct quotadata *q) {
    DB *quotas = mboxlist_db(MBOXLIST_QUOTADB);
    DBT key, data;
    mboxlist_create_struct(&key, nullptr, &data, root, nullptr, nullptr, nullptr, q);
    return quotas->put(quotas, txn, &key, &data, 0);
}

// The root of name into buf (MAX_MAILBOX_NAME bytes); IMAP_QUOTAROOT_NONEXISTENT
// for a name with no root.
int root_of(const char *name, char *buf) {
    if (strlen(name) >= MAX_MAILBOX_NAME) return IMAP_QUOTAROOT_NONEXISTENT;
    return mboxlist_quotaroot(name, buf);
}

// The percentage of the limits at which a root counts as over.
uint32_t threshold_percent() {
    config_cache *c = config_getdefaultcache();
    if (config_get_switch(c, "local.store.quotaoverdraft", 0) ||
        config_get_switch(c, "local.store.overquotastatus", 0))
        return 100;
    int p = config_get_int(c, "store.quotawarn", 90);
    return p < 0 ? 0 : (uint32_t)p;
}

}  // namespace

int mboxlist_getquotaroot(const char *name, struct quotadata *quota, char **root) {
    char rootname[MAX_MAILBOX_NAME];
    int r = root_of(name, rootname);
    if (r) return r;
    r = mboxlist_lookup_quota(rootname, quota, nullptr);
    if (r == DB_NOTFOUND) return IMAP_QUOTAROOT_NONEXISTENT;
    if (r != 0) {
        svclog(nullptr, 59, "Unable to get quota root %s: %s", rootname, db_strerror(r));
        return IMAP_IOERROR;
    }
    if (root) *root = xstrdup(rootname);
    return 0;
}

int mboxlist_setqwhen(struct quotadata *q) {
    uint64_t p = threshold_percent();
    // The thresholds are reckoned in 64 bits: a percentage of a large
    // message limit must not wrap round to a small one.
    uint64_t bytes = UINT64_MAX;
    if (q->limit != QUOTA_UNLIMITED) {
        uint64_t k = (q->limit / 100) * p + ((q->limit % 100) * p + 99) / 100;
        bytes = k << 10;
    }
    uint64_t messages = QUOTA_UNLIMITED;
    if (q->limit_messages != QUOTA_UNLIMITED) messages = ((uint64_t)q->limit_messages * p + 99) / 100;
    int below = quotadata_used(q) < bytes && q->used_messages < messages;
    if (q->over_since == 0 && !below) {
        q->over_since = (uint32_t)time(nullptr);
        return 1;
    }
    if (q->over_since != 0 && below) {
        q->over_since = 0;
        q->warned = 0;
        return -1;
    }
    return 0;
}

int mboxlist_changequota_internal(const char *name, uint32_t delta_low, uint32_t delta_high,
                                  unsigned count, DB_TXN *txn, int subtract,
                                  struct quotadata *quota) {
    char root[MAX_MAILBOX_NAME];
    int r = root_of(name, root);
    if (r) return r;
    r = mboxlist_lookup_quota(root, quota, txn);
    if (r == DB_NOTFOUND) {
        // A root without a row gets one, counting from zero.
        memset(quota, 0, sizeof(*quota));
        quota->limit_messages = QUOTA_UNLIMITED;
    } else if (r) {
        return r;
    }
    if (delta_low == 0 && delta_high == 0 && count == 0) return 0;
    uint64_t delta = ((uint64_t)delta_high << 32) | delta_low;
    uint64_t used = quotadata_used(quota);
    if (subtract) {
        quotadata_set_used(quota, used > delta ? used - delta : 0);
        quota->used_messages = quota->used_messages > count ? quota->used_messages - count : 0;
    } else {
        quotadata_set_used(quota, used + delta);
        quota->used_messages += count;
    }
    return put_row(txn, root, quota);
}

int mboxlist_changequota(const char *name, const struct mboxdata *, uint32_t delta_low,
                         uint32_t delta_high, unsigned count, int subtract,
                         struct quotadata *quota) {
    char root[MAX_MAILBOX_NAME];
    int r = root_of(name, root);
    if (r) return r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "changequota", name);
        if (r) return r;
        r = mboxlist_changequota_internal(name, delta_low, delta_high, count, txn, subtract,
                                          quota);
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to set quota root usage for %s: %s", root,
               mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}

int mboxlist_setquota(const char *root, uint32_t limit, uint32_t limit_messages) {
    struct quotadata q;
    int r, same = 0;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "setquota", root);
        if (r) return r;
        r = mboxlist_lookup_quota(root, &q, txn);
        if (r && r != DB_LOCK_DEADLOCK) {
            mboxlist_trans_finish(txn, r);
            return IMAP_QUOTAROOT_NONEXISTENT;
        }
        same = !r && q.limit == limit && q.limit_messages == limit_messages;
        if (!r && !same) {
            q.limit = limit;
            q.limit_messages = limit_messages;
            r = put_row(txn, root, &q);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to set quota for %s: %s", root, mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    // A new limit may put the root over its threshold, or below it.
    if (!same) mboxlist_adjustquotastatus(root, nullptr, &q, 0, nullptr);
    return 0;
}

int mboxlist_adjustquotastatus(const char *name, struct append_state *as,
                               struct quotadata *quota, int mode, int *changed) {
    char root[MAX_MAILBOX_NAME];
    int r = root_of(name, root);
    if (r) return r;
    struct quotadata local;
    struct quotadata *row = quota ? quota : &local;
    int s = 0;
    // A caller's copy that shows no change needs no transaction: the
    // crossing is decided on the stored row only when the copy suggests one.
    int look = !quota || mboxlist_setqwhen(quota) != 0;
    if (look) {
        do {
            DB_TXN *txn;
            r = mboxlist_trans_setup(&txn, "setqwhen", root);
            if (r) break;
            s = 0;
            r = mboxlist_lookup_quota(root, row, txn);
            if (r == 0) {
                s = mboxlist_setqwhen(row);
                if (s != 0) r = put_row(txn, root, row);
            }
            r = mboxlist_trans_finish(txn, r);
        } while (r == DB_LOCK_DEADLOCK);
        if (r) {
            svclog(nullptr, 59, "Unable to set quota status for %s: %s", root,
                   mboxlist_strerror(r));
            return IMAP_IOERROR;
        }
        if (s > 0) storenotify_quota(root, row, "OverQuota");
        if (s < 0) storenotify_quota(root, row, "UnderQuota");
        if (s != 0 && changed) *changed = 1;
    }
    mboxlist_sendquotawarning(root, as, row);
    if (mode != 0) s = row->over_since != 0 ? 1 : -1;
    if (s != 0) {
        // The directory's answer doesn't change the outcome: a directory
        // that can't be reached leaves a log line, and the row keeps its
        // new state.
        if (config_get_switch(config_getdefaultcache(), "local.store.overquotastatus", 0)) {
            if (s > 0)
                set_overquotastatus(root, "active", "overquota", changed);
            else
                set_overquotastatus(root, "overquota", "active", changed);
        } else if (mode == 2) {
            set_overquotastatus(root, "overquota", "active", changed);
        }
    }
    return 0;
}

int mboxlist_sendquotawarning(const char *root, struct append_state *as,
                              const struct quotadata *quota) {
    config_cache *c = config_getdefaultcache();
    if (quota->over_since == 0 || !config_get_switch(c, "store.quotanotification", 1)) return 0;
    int64_t interval = (int64_t)config_get_int(c, "store.quotaexceededmsginterval", 7) * 86400;
    if (quota->warned != 0 && (int64_t)time(nullptr) - interval < (int64_t)quota->warned)
        return 0;

    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *user = mboxname_owner(root, ownerbuf);
    int r = 1;
    userattr_block attrs = nullptr;
    if (user && userattr_get(user, &attrs, nullptr) == 0 && attrs) {
        // The stamp goes first: a message that can't be delivered is not
        // tried again within the interval.
        mboxlist_warnquota(root);
        char *lang = userattr_pref_lang(attrs);
        struct append_state *session =
            as && as->mailbox && store_isInbox(as->mailbox->name) ? as : nullptr;
        r = CreateMessage(user, root, userattr_first(attrs, USERATTR_MAIL), lang,
                          "store.quotaexceededmsg", session, quota);
        free(lang);
    }
    userattr_free(attrs, nullptr);
    if (r) svclog(nullptr, 59, "Unable to deliver overquota notification to %s", user ? user : root);
    return r;
}

int mboxlist_warnquota(const char *root) {
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "warnquota", root);
        if (r) return r;
        struct quotadata q;
        r = mboxlist_lookup_quota(root, &q, txn);
        if (r && r != DB_LOCK_DEADLOCK) {
            mboxlist_trans_finish(txn, r);
            return IMAP_QUOTAROOT_NONEXISTENT;
        }
        if (!r) {
            q.warned = (uint32_t)time(nullptr);
            r = put_row(txn, root, &q);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to set quota warning for %s: %s", root, mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}

int set_overquotastatus(const char *root, const char *oldstatus, const char *newstatus,
                        int *changed) {
    char ownerbuf[MBOXNAME_OWNER_SIZE];
    const char *user = mboxname_owner(root, ownerbuf);
    autocreate_init(nullptr, nullptr);
    userattr_block attrs = nullptr;
    char *dn = nullptr;
    int r = user ? userattr_get(user, &attrs, &dn) : -1;
    if (r || !attrs) {
        svclog(nullptr, 3, "set_overquotastatus: cannot get ldap attributes for user: %s",
               user ? user : root);
        userattr_free(attrs, dn);
        return -1;
    }
    const char *status = userattr_first(attrs, USERATTR_STATUS);
    if (status && strcasecmp(status, oldstatus) == 0) {
        char *values[] = {const_cast<char *>(newstatus), nullptr};
        LDAPMod mod;
        memset(&mod, 0, sizeof(mod));
        mod.mod_op = LDAP_MOD_REPLACE;
        mod.mod_type = const_cast<char *>(store_ldapattrs[USERATTR_STATUS]);
        mod.mod_values = values;
        LDAPMod *mods[] = {&mod, nullptr};
        r = LdPool_Modify_S(ugldappool, dn, mods);
        if (r)
            svclog(nullptr, 3, "set_overquotastatus: cannot modify ldap attributes for user %s: %s",
                   user, ldap_err2string(r));
        else if (changed)
            *changed = 1;
    }
    userattr_free(attrs, dn);
    return r;
}

int mboxlist_fixquota(const char *root, int *changed, uint32_t limit, uint32_t limit_messages,
                      int force) {
    DB *quotas = mboxlist_db(MBOXLIST_QUOTADB), *folders = mboxlist_db(MBOXLIST_FOLDERDB);
    struct quotadata q;
    int flag = 0, r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "fixquota", root);
        if (r) return r;
        // A root without a row keeps these values, which differ from any
        // sum, so that it gets a row.
        memset(&q, 0, sizeof(q));
        q.limit = q.used_low = q.used_high = 0xFFFFFFFF;
        q.limit_messages = 0xFFFFFFFE;
        DBT key, data;
        mboxlist_set_key(root, &key);
        memset(&data, 0, sizeof(data));
        data.data = &q;
        data.ulen = data.dlen = sizeof(q);
        data.flags = DB_DBT_USERMEM | DB_DBT_PARTIAL;
        r = quotas->get(quotas, txn, &key, &data, DB_RMW);
        if (r != DB_LOCK_DEADLOCK) r = 0;
        DBC *cursor = nullptr;
        if (!r) r = folders->cursor(folders, txn, &cursor, 0);
        if (!r) {
            uint64_t was_bytes = quotadata_used(&q);
            uint32_t was_messages = q.used_messages;
            uint64_t sum_bytes = 0;
            uint32_t sum_messages = 0;
            flag = 0;
            size_t rootlen = strlen(root);
            DBT k, d;
            memset(&k, 0, sizeof(k));
            memset(&d, 0, sizeof(d));
            k.data = const_cast<char *>(root);
            k.size = (uint32_t)rootlen + 1;
            k.flags = DB_DBT_READONLY;
            d.flags = DB_DBT_MALLOC;
            // The root's own row, then its folders, which sort right behind it.
            int g = cursor->get(cursor, &k, &d, DB_SET);
            k.flags = DB_DBT_MALLOC;
            while (g == 0) {
                const char *name = (const char *)k.data;
                if (k.size < rootlen + 1 || strncmp(name, root, rootlen) != 0 ||
                    (name[rootlen] != '\0' && name[rootlen] != '/')) {
                    if (k.data != root) free(k.data);
                    free(d.data);
                    break;
                }
                if (d.size >= sizeof(struct mboxdata)) {
                    struct mboxdata mbd;
                    memcpy(&mbd, d.data, sizeof(mbd));
                    sum_bytes += ((uint64_t)mbd.quota_used[1] << 32) | mbd.quota_used[0];
                    sum_messages += mbd.exists;
                }
                if (k.data != root) free(k.data);
                free(d.data);
                k.data = nullptr;
                d.data = nullptr;
                g = cursor->get(cursor, &k, &d, DB_NEXT);
            }
            if (g == DB_NOTFOUND && k.data == root) {
                r = DB_NOTFOUND;  // the root's folder has no row
            } else if (g != 0 && g != DB_NOTFOUND) {
                r = g;
            } else {
                if (sum_bytes != was_bytes || sum_messages != was_messages) flag = 1;
                if (limit != QUOTA_KEEP && limit != q.limit) q.limit = limit, flag = 1;
                if (limit_messages != QUOTA_KEEP && limit_messages != q.limit_messages)
                    q.limit_messages = limit_messages, flag = 1;
                if (flag || mboxlist_fixquota_reconstructed) {
                    quotadata_set_used(&q, sum_bytes);
                    q.used_messages = sum_messages;
                    q.last_dbrepair = mboxlist_fixquota_reconstructed;
                    r = put_row(txn, root, &q);
                }
            }
            cursor->close(cursor);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (!r) r = mboxlist_adjustquotastatus(root, nullptr, &q, force ? 2 : 1, &flag);
    if (changed) *changed = flag;
    if (r == DB_NOTFOUND) r = IMAP_MAILBOX_NONEXISTENT;
    return r;
}

int mboxlist_setlastuse(const char *userid, uint32_t a, uint32_t b) {
    char root[MAX_MAILBOX_NAME];
    mboxname_toownedmailbox(nullptr, userid, root);
    int r;
    do {
        DB_TXN *txn;
        r = mboxlist_trans_setup(&txn, "lastuse", root);
        if (r) return r;
        struct quotadata q;
        r = mboxlist_lookup_quota(root, &q, txn);
        if (r && r != DB_LOCK_DEADLOCK)
            svclog(nullptr, 59, "Unable to read quota usage for %s: %s", root, db_strerror(r));
        if (!r) {
            q.access_other = (uint32_t)time(nullptr);
            if (a != 0 && (a != q.lastuse_a || b > q.lastuse_b)) {
                q.lastuse_a = a;
                q.lastuse_b = b;
            }
            r = put_row(txn, root, &q);
        }
        r = mboxlist_trans_finish(txn, r);
    } while (r == DB_LOCK_DEADLOCK);
    if (r) {
        svclog(nullptr, 59, "Unable to set lastuse for %s: %s", root, mboxlist_strerror(r));
        return IMAP_IOERROR;
    }
    return 0;
}
