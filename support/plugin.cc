// Plug-in loader over dlopen. Each library is loaded with RTLD_LOCAL, so
// the symbols of two plug-ins never mix, and RTLD_NOW, so a plug-in with a
// missing dependency fails at load rather than at its first call.
#include "support/plugin.h"

#include <dlfcn.h>
#include <stdlib.h>

#include "support/log.h"
#include "support/xmalloc.h"

struct svcplugin {
    void *context;  // must stay the first member: callers read it directly
    void *dl;
    char *library;
    char *text;
};

typedef void *(*plugin_init_fn)(const char *text);
typedef void (*plugin_shutdown_fn)(void *context);

svcplugin *svcpluginload(const char *library, const char *text) {
    if (!library || !*library) {
        svclog(0, 3, "cannot load plug-in: no library named");
        return nullptr;
    }
    void *dl = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (!dl) {
        const char *why = dlerror();
        svclog(0, 3, "cannot load plug-in %s: %s", library, why ? why : "unknown error");
        return nullptr;
    }
    svcplugin *h = (svcplugin *)xcalloc(1, sizeof *h);
    h->dl = dl;
    h->library = xstrdup(library);
    h->text = xstrdup(text ? text : "");
    plugin_init_fn init = (plugin_init_fn)dlsym(dl, "svcplugin_init");
    if (init) h->context = init(h->text);
    return h;
}

void *svcpluginload_getfunc(svcplugin *h, const char *symbol) {
    if (!h || !symbol) return nullptr;
    dlerror();
    return dlsym(h->dl, symbol);
}

const char *svcpluginload_text(svcplugin *h) { return h ? h->text : nullptr; }

void svcpluginload_shutdown(svcplugin *h) {
    if (!h) return;
    plugin_shutdown_fn fini = (plugin_shutdown_fn)dlsym(h->dl, "svcplugin_shutdown");
    if (fini) fini(h->context);
    if (dlclose(h->dl) != 0) {
        const char *why = dlerror();
        svclog(0, 4, "cannot unload plug-in %s: %s", h->library, why ? why : "unknown error");
    }
    free(h->library);
    free(h->text);
    free(h);
}
