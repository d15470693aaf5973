// A host build tells the host platform each step of the file cache (a block
// charged or refused, a flush queued, begun, over), so that tests can wait
// for dumps and host programs can follow the budget. A device build notes
// nothing: the macro is empty there.
#pragma once

#if defined(QRNCAM_HOST_OBSERVE)
#include <qrnhost/filecache.h>
#define QRN_FILECACHE_NOTE(event, cache, flush, name, bytes, charged, limit, ok) \
    ::qrnhost::filecache::note(                                                  \
        ::qrnhost::filecache::Note{::qrnhost::filecache::Event::event, cache, flush, name, bytes, charged, limit, ok})
#else
#define QRN_FILECACHE_NOTE(event, cache, flush, name, bytes, charged, limit, ok) ((void)0)
#endif
