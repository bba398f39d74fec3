// A pool of bound connections to the directory, over the OpenLDAP client
// library.
//
// A connection is an LDAP handle that one thread uses at a time. Free
// handles wait on a list; a caller takes one, or opens (and binds) a new one
// while fewer than maxconns exist, or else waits on a condition until one
// comes back. Every operation is sent asynchronously and its answer awaited
// with ldap_result and an explicit time-out, so that no step depends on the
// library's defaults: connect is bounded by LDAP_OPT_NETWORK_TIMEOUT, every
// answer (bind, search, modify) by the wait given to ldap_result. A server
// that accepts connections but never answers (a stopped process: the kernel
// still completes the TCP handshake) thus gives LDAP_TIMEOUT.
//
// A handle whose operation timed out or failed below the protocol is
// closed rather than put back: an answer might still arrive on it and be
// taken for the answer of the next operation.

#include "support/ldappool.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "support/config.h"
#include "support/xmalloc.h"

namespace {

struct LdConn {
    LDAP *ld;
    LdConn *next;
};

}  // namespace

struct LdPoolCtx {
    char *url;
    char *binddn;    // null: anonymous
    char *bindcred;
    char *basedn;    // default base of searches
    char *certdir;   // null: plain LDAP
    int maxconns;
    int timelimit;   // seconds the server may spend on a search
    int sizelimit;   // 0: the server's limit
    int timeout;     // seconds of every network step
    int retries;
    int idle;

    pthread_mutex_t lock;
    pthread_cond_t changed;  // a connection came back, or room to open one
    LdConn *free_list;       // under lock
    int nfree;               // under lock: length of free_list
    int nopen;               // under lock: free + in use + being opened
};

// ---- SIGPIPE ---------------------------------------------------------------

// The library writes to its sockets with write(2): a server that has closed
// its end raises SIGPIPE, which would end a program that didn't ignore it.
// The signal is blocked in the calling thread around each library call and a
// SIGPIPE that the call raised is taken off again, so the failed write shows
// only as a lost connection (LDAP_SERVER_DOWN).
namespace {

class PipeGuard {
  public:
    PipeGuard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    }
    ~PipeGuard() {
        if (!was_pending_) {
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGPIPE) == 1) {
                struct timespec none = {0, 0};
                while (sigtimedwait(&pipe_, nullptr, &none) < 0 && errno == EINTR) {
                }
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    PipeGuard(const PipeGuard &) = delete;
    PipeGuard &operator=(const PipeGuard &) = delete;

  private:
    sigset_t pipe_, old_;
    bool was_pending_ = false;
};

}  // namespace

// ---- one connection --------------------------------------------------------

static struct timeval ms_to_tv(int ms) {
    struct timeval tv;
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    return tv;
}

// Waits up to wait_ms for the whole answer to msgid: its result code, with
// the answer in *msg when msg is given (freed otherwise). LDAP_TIMEOUT when
// nothing came in time; the library's number (LDAP_SERVER_DOWN...) when the
// connection failed.
static int await_result(LDAP *ld, int msgid, int wait_ms, LDAPMessage **msg) {
    struct timeval tv = ms_to_tv(wait_ms);
    LDAPMessage *res = nullptr;
    int got = ldap_result(ld, msgid, LDAP_MSG_ALL, &tv, &res);
    if (got == 0) {
        if (res) ldap_msgfree(res);
        return LDAP_TIMEOUT;
    }
    if (got < 0 || !res) {
        int rc = LDAP_SERVER_DOWN;
        ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &rc);
        if (res) ldap_msgfree(res);
        return rc != LDAP_SUCCESS ? rc : LDAP_SERVER_DOWN;
    }
    int rc = ldap_result2error(ld, res, 0);
    if (msg)
        *msg = res;
    else
        ldap_msgfree(res);
    return rc;
}

static void close_conn(LDAP *ld) {
    if (!ld) return;
    PipeGuard guard;
    ldap_unbind_ext_s(ld, nullptr, nullptr);
}

static int set_options(LdPoolCtx *pool, LDAP *ld) {
    int version = LDAP_VERSION3;
    struct timeval net = ms_to_tv(pool->timeout * 1000);
    int timelimit = pool->timelimit;
    int rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    // Referrals are not chased: that would bind anonymously elsewhere.
    if (rc == LDAP_OPT_SUCCESS) rc = ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (rc == LDAP_OPT_SUCCESS) rc = ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &net);
    // Also the bound of synchronous calls that the library makes by itself.
    if (rc == LDAP_OPT_SUCCESS) rc = ldap_set_option(ld, LDAP_OPT_TIMEOUT, &net);
    if (rc == LDAP_OPT_SUCCESS) rc = ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &timelimit);
    if (rc == LDAP_OPT_SUCCESS && pool->certdir) {
        int demand = LDAP_OPT_X_TLS_DEMAND;
        int is_server = 0;
        rc = ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTDIR, pool->certdir);
        if (rc == LDAP_OPT_SUCCESS) rc = ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
        // The options above belong to this handle only once it has a TLS
        // context of its own.
        if (rc == LDAP_OPT_SUCCESS) rc = ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &is_server);
    }
    return rc == LDAP_OPT_SUCCESS ? LDAP_SUCCESS : LDAP_LOCAL_ERROR;
}

// Opens a handle and binds it (connecting happens at the bind).
static int open_conn(LdPoolCtx *pool, LDAP **out) {
    *out = nullptr;
    LDAP *ld = nullptr;
    int rc = ldap_initialize(&ld, pool->url);
    if (rc != LDAP_SUCCESS) return rc;
    rc = set_options(pool, ld);
    if (rc == LDAP_SUCCESS) {
        PipeGuard guard;
        struct berval cred;
        cred.bv_val = pool->bindcred ? pool->bindcred : const_cast<char *>("");
        cred.bv_len = strlen(cred.bv_val);
        int msgid = -1;
        rc = ldap_sasl_bind(ld, pool->binddn ? pool->binddn : "", LDAP_SASL_SIMPLE, &cred,
                            nullptr, nullptr, &msgid);
        if (rc == LDAP_SUCCESS) rc = await_result(ld, msgid, pool->timeout * 1000, nullptr);
    }
    if (rc != LDAP_SUCCESS) {
        close_conn(ld);
        return rc;
    }
    *out = ld;
    return LDAP_SUCCESS;
}

// ---- the pool's list -------------------------------------------------------

static struct timespec deadline_after(int seconds) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += seconds;
    return ts;
}

// A connection for one operation: a free one, a new one, or one that comes
// back within the pool's time-out.
static int acquire(LdPoolCtx *pool, LDAP **out) {
    struct timespec deadline = deadline_after(pool->timeout);
    pthread_mutex_lock(&pool->lock);
    for (;;) {
        if (pool->free_list) {
            LdConn *c = pool->free_list;
            pool->free_list = c->next;
            pool->nfree--;
            pthread_mutex_unlock(&pool->lock);
            *out = c->ld;
            free(c);
            return LDAP_SUCCESS;
        }
        if (pool->nopen < pool->maxconns) {
            pool->nopen++;  // the slot is ours while we connect without the lock
            pthread_mutex_unlock(&pool->lock);
            int rc = open_conn(pool, out);
            if (rc != LDAP_SUCCESS) {
                pthread_mutex_lock(&pool->lock);
                pool->nopen--;
                pthread_cond_signal(&pool->changed);
                pthread_mutex_unlock(&pool->lock);
            }
            return rc;
        }
        int w = pthread_cond_timedwait(&pool->changed, &pool->lock, &deadline);
        if (w == ETIMEDOUT) {
            pthread_mutex_unlock(&pool->lock);
            return LDAP_TIMEOUT;
        }
    }
}

enum release_mode {
    RELEASE_KEEP,      // the connection is sound
    RELEASE_DROP,      // close it
    RELEASE_DROP_ALL,  // the server dropped it: close it and the free ones,
                       // which were opened to the same server and are most
                       // likely dead too
};

static void release(LdPoolCtx *pool, LDAP *ld, release_mode mode) {
    LdConn *doomed = nullptr;
    LDAP *close_ld = nullptr;
    pthread_mutex_lock(&pool->lock);
    if (mode == RELEASE_KEEP && pool->nfree < pool->idle) {
        LdConn *c = (LdConn *)xmalloc(sizeof *c);
        c->ld = ld;
        c->next = pool->free_list;
        pool->free_list = c;
        pool->nfree++;
    } else {
        close_ld = ld;
        pool->nopen--;
    }
    if (mode == RELEASE_DROP_ALL) {
        doomed = pool->free_list;
        pool->nopen -= pool->nfree;
        pool->free_list = nullptr;
        pool->nfree = 0;
    }
    pthread_cond_broadcast(&pool->changed);
    pthread_mutex_unlock(&pool->lock);
    // Unbinding sends a message: done outside the lock.
    close_conn(close_ld);
    while (doomed) {
        LdConn *next = doomed->next;
        close_conn(doomed->ld);
        free(doomed);
        doomed = next;
    }
}

// ---- running an operation --------------------------------------------------

static bool connection_lost(int rc) {
    return rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR || rc == LDAP_UNAVAILABLE;
}

// Whether the handle can serve again after an operation that gave rc: the
// server answered (any result code), or the library refused the request
// before sending it.
static bool connection_sound(int rc) {
    return rc >= 0 || rc == LDAP_FILTER_ERROR || rc == LDAP_PARAM_ERROR ||
           rc == LDAP_NO_MEMORY || rc == LDAP_NOT_SUPPORTED;
}

// Runs op on a pooled connection. After a lost connection the operation is
// tried again on a fresh one, up to pool->retries times; a connection that
// can't be opened ends it at once, as does a time-out (waiting once more
// would double the bound that the caller was promised).
template <typename Op> static int run_op(LdPoolCtx *pool, Op op) {
    for (int attempt = 0;; attempt++) {
        LDAP *ld = nullptr;
        int rc = acquire(pool, &ld);
        if (rc != LDAP_SUCCESS) return rc;
        {
            PipeGuard guard;
            rc = op(ld);
        }
        if (connection_lost(rc)) {
            release(pool, ld, RELEASE_DROP_ALL);
            if (attempt < pool->retries) continue;
            return rc;
        }
        release(pool, ld, connection_sound(rc) ? RELEASE_KEEP : RELEASE_DROP);
        return rc;
    }
}

// ---- the interface ---------------------------------------------------------

static char *dup_or_null(const char *s) { return s ? xstrdup(s) : nullptr; }

static void pool_free(LdPoolCtx *pool) {
    free(pool->url);
    free(pool->binddn);
    free(pool->bindcred);
    free(pool->basedn);
    free(pool->certdir);
    pthread_cond_destroy(&pool->changed);
    pthread_mutex_destroy(&pool->lock);
    free(pool);
}

int LdPoolCtx_New(const char *binddn, const char *bindcred, const char *host,
                  const char *basedn, const char *certdir, int port, int initconns,
                  int maxconns, int timelimit, int sizelimit, int timeout, int retries,
                  int idle, int flags, LdPoolCtx **out) {
    (void)flags;
    if (!out) return LDAP_PARAM_ERROR;
    *out = nullptr;
    if (!host || !*host || port <= 0 || port > 65535) return LDAP_PARAM_ERROR;

    LdPoolCtx *pool = (LdPoolCtx *)xcalloc(1, sizeof *pool);
    // An IPv6 address goes in brackets in a URL.
    const char *fmt = strchr(host, ':') ? "%s://[%s]:%d" : "%s://%s:%d";
    size_t len = strlen(host) + 32;
    pool->url = (char *)xmalloc(len);
    snprintf(pool->url, len, fmt, certdir ? "ldaps" : "ldap", host, port);
    pool->binddn = binddn && *binddn ? xstrdup(binddn) : nullptr;
    pool->bindcred = dup_or_null(bindcred);
    pool->basedn = dup_or_null(basedn);
    pool->certdir = dup_or_null(certdir);
    pool->timeout = timeout > 0 ? timeout
                                : config_get_int(config_getdefaultcache(), "local.ugldaptimeout", 10);
    if (pool->timeout <= 0) pool->timeout = 10;
    pool->maxconns = maxconns > 0 ? maxconns : 1;
    pool->timelimit = timelimit > 0 ? timelimit : pool->timeout;
    pool->sizelimit = sizelimit > 0 ? sizelimit : LDAP_NO_LIMIT;
    pool->retries = retries > 0 ? retries : 0;
    pool->idle = idle > 0 ? idle : 0;

    pthread_mutex_init(&pool->lock, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&pool->changed, &attr);
    pthread_condattr_destroy(&attr);

    // The first connections are opened now, so that a wrong host or
    // credential shows when the pool is made; they wait on the free list
    // (beyond idle they are closed again at once).
    if (initconns > pool->maxconns) initconns = pool->maxconns;
    LDAP **first = initconns > 0 ? (LDAP **)xcalloc((size_t)initconns, sizeof(LDAP *)) : nullptr;
    int rc = LDAP_SUCCESS;
    int opened = 0;
    for (; opened < initconns && rc == LDAP_SUCCESS; opened++) {
        rc = acquire(pool, &first[opened]);
        if (rc != LDAP_SUCCESS) break;
    }
    for (int i = 0; i < opened; i++) release(pool, first[i], RELEASE_KEEP);
    free(first);
    if (rc != LDAP_SUCCESS) {
        LdPoolCtx_Delete(pool);
        return rc;
    }
    *out = pool;
    return LDAP_SUCCESS;
}

void LdPoolCtx_Delete(LdPoolCtx *pool) {
    if (!pool) return;
    pthread_mutex_lock(&pool->lock);
    LdConn *list = pool->free_list;
    pool->free_list = nullptr;
    pool->nopen -= pool->nfree;
    pool->nfree = 0;
    pthread_mutex_unlock(&pool->lock);
    while (list) {
        LdConn *next = list->next;
        close_conn(list->ld);
        free(list);
        list = next;
    }
    pool_free(pool);
}

int LdPool_Search_Timed(LdPoolCtx *pool, const char *base, int scope, const char *filter,
                        char **attrs, int attrsonly, int wait_ms, LDAPMessage **res) {
    if (!res) return LDAP_PARAM_ERROR;
    *res = nullptr;
    if (!pool) return LDAP_PARAM_ERROR;
    if (!base) base = pool->basedn ? pool->basedn : "";
    if (!filter) filter = "(objectClass=*)";
    if (wait_ms <= 0) wait_ms = pool->timeout * 1000;
    LDAPMessage *found = nullptr;
    int rc = run_op(pool, [&](LDAP *ld) {
        int msgid = -1;
        int sent = ldap_search_ext(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr,
                                   nullptr, pool->sizelimit, &msgid);
        if (sent != LDAP_SUCCESS) return sent;
        return await_result(ld, msgid, wait_ms, &found);
    });
    // A result that isn't success may still carry entries (a size or time
    // limit); the contract is all or nothing.
    if (rc != LDAP_SUCCESS) {
        if (found) ldap_msgfree(found);
        return rc;
    }
    *res = found;
    return LDAP_SUCCESS;
}

int LdPool_Search_S(LdPoolCtx *pool, const char *base, int scope, const char *filter,
                    char **attrs, int attrsonly, LDAPMessage **res) {
    return LdPool_Search_Timed(pool, base, scope, filter, attrs, attrsonly, 0, res);
}

int LdPool_Modify_S(LdPoolCtx *pool, const char *dn, LDAPMod **mods) {
    if (!pool || !dn || !mods) return LDAP_PARAM_ERROR;
    return run_op(pool, [&](LDAP *ld) {
        int msgid = -1;
        int sent = ldap_modify_ext(ld, dn, mods, nullptr, nullptr, &msgid);
        if (sent != LDAP_SUCCESS) return sent;
        return await_result(ld, msgid, pool->timeout * 1000, nullptr);
    });
}

// ---- reading results ---------------------------------------------------------

// The library's calls that read a result want a handle, though they use it
// only to store an error number. These functions have no pool, so they
// share one handle that is made once and never connected; what the library
// writes into it is never read.
static LDAP *reader_ld;
static pthread_once_t reader_once = PTHREAD_ONCE_INIT;

static void make_reader(void) {
    if (ldap_initialize(&reader_ld, "ldap://127.0.0.1/") != LDAP_SUCCESS) reader_ld = nullptr;
}

static LDAP *reader(void) {
    pthread_once(&reader_once, make_reader);
    return reader_ld;
}

int LdPool_Count_Entries(LDAPMessage *res, int *count) {
    if (!count) return LDAP_PARAM_ERROR;
    *count = 0;
    LDAP *ld = reader();
    if (!res || !ld) return LDAP_PARAM_ERROR;
    int n = ldap_count_entries(ld, res);
    if (n < 0) return LDAP_DECODING_ERROR;
    *count = n;
    return LDAP_SUCCESS;
}

int LdPool_First_Entry(LDAPMessage *res, LDAPMessage **entry) {
    if (!entry) return LDAP_PARAM_ERROR;
    *entry = nullptr;
    LDAP *ld = reader();
    if (!res || !ld) return LDAP_NO_RESULTS_RETURNED;
    *entry = ldap_first_entry(ld, res);
    return *entry ? LDAP_SUCCESS : LDAP_NO_RESULTS_RETURNED;
}

int LdPool_Next_Entry(LDAPMessage *entry, LDAPMessage **next) {
    if (!next) return LDAP_PARAM_ERROR;
    *next = nullptr;
    LDAP *ld = reader();
    if (!entry || !ld) return LDAP_NO_RESULTS_RETURNED;
    *next = ldap_next_entry(ld, entry);
    return *next ? LDAP_SUCCESS : LDAP_NO_RESULTS_RETURNED;
}

int LdPool_Get_Values(LDAPMessage *entry, const char *attr, char ***values) {
    if (!values) return LDAP_PARAM_ERROR;
    *values = nullptr;
    LDAP *ld = reader();
    if (!entry || !attr || !ld) return LDAP_PARAM_ERROR;
    *values = ldap_get_values(ld, entry, attr);
    return *values ? LDAP_SUCCESS : LDAP_NO_SUCH_ATTRIBUTE;
}

int LdPool_Get_DN(LDAPMessage *entry, char **dn) {
    if (!dn) return LDAP_PARAM_ERROR;
    *dn = nullptr;
    LDAP *ld = reader();
    if (!entry || !ld) return LDAP_PARAM_ERROR;
    *dn = ldap_get_dn(ld, entry);
    return *dn ? LDAP_SUCCESS : LDAP_DECODING_ERROR;
}

int LdPool_Get_Attributes(LDAPMessage *entry, char ***names) {
    if (!names) return LDAP_PARAM_ERROR;
    *names = nullptr;
    LDAP *ld = reader();
    if (!entry || !ld) return LDAP_PARAM_ERROR;
    size_t count = 0, cap = 8;
    char **list = (char **)ldap_memcalloc(cap + 1, sizeof(char *));
    if (!list) return LDAP_NO_MEMORY;
    BerElement *ber = nullptr;
    for (char *a = ldap_first_attribute(ld, entry, &ber); a;
         a = ldap_next_attribute(ld, entry, ber)) {
        if (count == cap) {
            cap *= 2;
            char **bigger = (char **)ldap_memrealloc(list, (cap + 1) * sizeof(char *));
            if (!bigger) {
                ldap_memfree(a);
                ldap_value_free(list);
                if (ber) ber_free(ber, 0);
                return LDAP_NO_MEMORY;
            }
            list = bigger;
        }
        list[count++] = a;  // the library's allocation, which ldap_value_free releases
        list[count] = nullptr;
    }
    if (ber) ber_free(ber, 0);
    if (count == 0) {
        ldap_value_free(list);
        return LDAP_NO_SUCH_ATTRIBUTE;
    }
    *names = list;
    return LDAP_SUCCESS;
}
