// The configuration of an instance, and the small option files.
//
// An instance is a directory (STORE_INSTANCEDIR, else the default fixed at
// build time) laid out as
//   config/store.conf   the configuration file: "key: value" lines
//   config/store.parts  the partition id table
//   config/option.dat   the option file
//   data/store          the store's data directory (databases, sessions)
//   data/lock           lock files
//   log/                the log files
//   partitions/NAME     partition directories
//
// Every key is read with its default at the point of reading; an empty
// configuration file is a working configuration.
#ifndef SUPPORT_CONFIG_H
#define SUPPORT_CONFIG_H

typedef struct config_cache config_cache;

// Loads the configuration. flags are passed through by callers (16 from the
// object context); 0 for success, -1 with a message on standard error if
// the instance or its configuration file cannot be read.
int configmsg_init(void *unused, int flags, const char *progname);
// Opens the default log of the instance for this program; 0 for success.
int configmsg_initlog(void *unused, const char *progname);

config_cache *config_getdefaultcache(void);
const char *config_get_string(config_cache *c, const char *key, const char *def);
char *config_get_stringcopy(config_cache *c, const char *key, const char *def);
int config_get_int(config_cache *c, const char *key, int def);
int config_get_switch(config_cache *c, const char *key, int def);
int config_get_status(config_cache *c, const char *key);

const char *config_getinstancedir(void);
const char *config_processname(void);

// Data directory: key local.store.dir, default <instance>/data/store.
const char *configmsg_get_storedir(void);
// <instance>/config
const char *configmsg_getconfigroot(void);
// Log directory: key local.logdir, default <instance>/log.
const char *configmsg_getlogdir(void);
// Partitions are configured by store.partition.NAME.path (and optionally
// store.partition.NAME.messagepath). Without such a key, "primary" lies at
// <instance>/partitions/primary; other unknown names give null.
char *configmsg_partitiondir(const char *partition);
char *configmsg_partitionmsgdir(const char *partition);
typedef int (*configmsg_partition_cb)(const char *name, const char *dir, void *rock);
// Calls cb for each configured partition, sorted by name ("primary" at its
// default place if none is configured); stops at the first non-zero result
// of cb and returns it.
int configmsg_scanpartition(configmsg_partition_cb cb, void *rock);
// Gives a server file its owner and mode: when the process runs as root
// and local.serveruser is set, the owner becomes that user and its group;
// a regular file gets mode 0600, a directory 0700 (only the server user
// may read the store); other kinds of files (symbolic links, ...) are left
// alone. 0 for success, -1 with errno set.
int configmsg_fixfilemode(const char *path, int flags);
// Running as root with local.serveruser set: changes group and user to it.
// Otherwise does nothing. Non-zero on failure (unknown user, refused).
int configmsg_setuid(void);
// Small state files "<storedir>/<name>": a decimal number and a newline,
// replaced through "<name>.new". Reading gives 0, 2 if the file doesn't
// exist, otherwise an errno value (EINVAL for a malformed file). Writing
// gives 0 or an errno value.
int configmsg_readstoredfile(const char *name, long *value);
int configmsg_writestoredfile(const char *name, long value);
// Heap copy of "<key>.<lang>" for the first language of the list (separated
// by commas or blanks) that has one, with *outlang a heap copy of that
// language; else of the plain key with *outlang null; else null.
char *configmsg_getstringcopywlang(const char *key, int flags, const char *languages,
                                   char **outlang);

// Drops all loaded configuration and closes the logs (used by tests and at
// exit); the next configmsg_init reads the instance again.
void configmsg_reset(void);

// Option files: "key=value" lines, '#' comments, blanks trimmed. optfile_read
// gives null if the file can't be read; log is a handle for svclog.
typedef struct optfile optfile;
optfile *optfile_read(const char *dir, const char *name, void *log, int a, int b,
                      int c, int d, int e);
int optfile_int(optfile *h, const char *key, int def);
const char *optfile_get(optfile *h, const char *key, const char *def);
void optfile_dispose(optfile *h);

#endif
