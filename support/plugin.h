// Loader of plug-in libraries. A plug-in is named by a configuration value
// "library$text": the library path before the first "$", the text after it.
//
// The first word of a handle is the plug-in's own context, which the store
// passes back as the first argument of each entry point. If the library
// exports "svcplugin_init" (void *svcplugin_init(const char *text)), it is
// called at load and its result becomes the context; otherwise the context
// is null. At shutdown "svcplugin_shutdown" (void svcplugin_shutdown(void
// *context)) is called if exported, then the library is unloaded.
#ifndef SUPPORT_PLUGIN_H
#define SUPPORT_PLUGIN_H

typedef struct svcplugin svcplugin;
// Null on failure, after a log entry at level 3 with the loader's reason.
svcplugin *svcpluginload(const char *library, const char *text);
void *svcpluginload_getfunc(svcplugin *h, const char *symbol);
void svcpluginload_shutdown(svcplugin *h);
const char *svcpluginload_text(svcplugin *h);

#endif
