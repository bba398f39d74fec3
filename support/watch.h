// The watcher connection and the ready mark of the store daemon.
//
// A process of the store may announce itself to a watcher service over TCP:
// it connects to the configured address and port and sends one line,
// "register <process name> <pid>\n"; the connection stays open for the
// life of the process, so the watcher sees the process end when it closes.
//
// Only one daemon may work on a store: it holds an exclusive lock on
// "<name>.lock" in the store's data directory from its first step to its
// end, and a second daemon that finds the lock taken refuses to start.
//
// The store daemon declares that it has finished starting by holding an
// exclusive lock on the file "<name>.ready" in the store's data directory,
// which also holds its process id. The mark is alive exactly as long as the
// daemon: when the daemon ends, however it ends, the lock goes with it.
#ifndef SUPPORT_WATCH_H
#define SUPPORT_WATCH_H

// flags 1: send the registration line. Returns 0 on success.
int watch_connect(void *unused, const char *host, int port, const char *procname, int flags);
void watch_shutdown(void);

// Takes the one-daemon lock of name without waiting; it is held until the
// process ends (and by a child forked after it). 0, or -1 with errno
// EWOULDBLOCK when another process holds it, else the cause of the failure.
int store_daemon_lock(const char *name);
// Non-zero if the daemon called name has declared itself ready and still runs.
int store_session_ready_test(const char *name);
// Declares this process ready as name; 0 on success. The mark stays until
// store_session_ready_withdraw or the end of the process.
int store_session_ready_declare(const char *name);
void store_session_ready_withdraw(const char *name);

#endif
