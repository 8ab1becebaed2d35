// hostkit.h: a stand-in for the closed host. It loads the library, hands over a heap, builds the
// cells of commands and calls them by their English names; handlers are C++ callables.
//
//     Heap heap;
//     Library library(FindLibrary(), heap);
//     Server server(library);
//     server.StartServer(port, [&](HostWord message) { ... server.GetRequestText(message) ... });
#pragma once

#include "hostkit/free_port.h"
#include "hostkit/gbk.h"
#include "hostkit/heap.h"
#include "hostkit/library.h"
#include "hostkit/objects.h"
#include "hostkit/routines.h"
#include "hostkit/value.h"
