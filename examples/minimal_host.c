// minimal_host.c: the least that a host does with the library: a pattern for binding it to another
// runtime. Starts a server with a handler, lets a client ask it, prints and checks the exchange.
//     gcc -m32 -o minimal_host minimal_host.c && ./minimal_host ./libnrpc.so
#include <ctype.h>
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

_Static_assert(sizeof(void *) == 4, "the library lives in 32-bit programs: compile with -m32");

// --- the frame: cells, and as much of the descriptor as a host needs ---
struct Cell { // an argument or a result
    uint32_t Value;
    uint32_t Unused;
    uint32_t Type; // 0: the argument is left out
};
static struct Cell CellOf(uint32_t value, uint32_t type) {
    return (struct Cell){value, 0, type | 0x80000000};
}
#define OBJECT(members) CellOf((uint32_t)(members), 0) // always the first cell
#define INTEGER(number) CellOf((uint32_t)(number), 0x301)
#define LOGICAL(truth) CellOf(truth, 2)
#define TEXT(text) CellOf((uint32_t)(text), 4) // an input text, or the address of a variable
#define ROUTINE(function) CellOf((uint32_t)(function), 6)

struct Command {
    const char *Name, *EnglishName, *Help; // GBK, ASCII, GBK
    uint32_t Bits, ResultType, Reserved[2];
    int32_t ArgCount; // without the object
    const void *Args;
};
static const struct Library {
    uint32_t Format, Unused[24]; // texts, version, the two object types
    int32_t CommandCount;
    const struct Command *Commands;
    void (*const *Entries)(struct Cell *result, int32_t cellCount, struct Cell *cells);
} *s_Library;

// Runs a command by its English name: the k-th row of the descriptor has the k-th entry function.
#define CALL(name, ...) Call(name, (struct Cell[]){__VA_ARGS__})
static int32_t Call(const char *name, struct Cell *cells) {
    for (int32_t i = 0; i < s_Library->CommandCount; ++i) {
        if (strcmp(s_Library->Commands[i].EnglishName, name) == 0) {
            struct Cell result = {0};
            s_Library->Entries[i](&result, 1 + s_Library->Commands[i].ArgCount, cells);
            return (int32_t)result.Value;
        }
    }
    fprintf(stderr, "the library has no command %s\n", name);
    exit(1);
}

// --- the service: all memory that the library hands over comes from the host's heap ---
enum { kFreeArray = 2023, kAlloc = 2024, kFree = 2025 };
static _Atomic int s_Blocks; // on the heap now

// Any thread of the library may call it, several at once.
static uint32_t Service(uint32_t code, uint32_t first, uint32_t second) {
    void *block = (void *)(code == kFreeArray ? second : first);
    if (code == kAlloc) {
        block = malloc(first);
        s_Blocks += block != NULL;
        return (uint32_t)block;
    }
    if ((code == kFree || code == kFreeArray) && block != NULL) {
        free(block);
        --s_Blocks;
    }
    return 0;
}

// --- the server's handler and the program ---
static uint32_t s_Server[1], s_Client[2]; // member words of objects, where the library keeps state
static _Atomic int s_Events[3]; // by kind: a client came, a client left, a request

// Runs on a thread of the library. `message` is valid until it returns. A routine may pop its
// argument or leave it to the caller, and use the registers as it likes.
static void OnEvent(uint32_t message) {
    const int32_t kind = CALL("GetMsgKind", OBJECT(s_Server), INTEGER(message));
    if (kind < 0 || kind > 2) {
        return; // the server stops
    }
    ++s_Events[kind];
    if (kind != 2) {
        printf("server: a client %s\n", kind == 0 ? "came" : "left");
        return;
    }
    char *code = NULL; // variables of type text: null, or a block that is ours to free
    char *text = NULL;
    if (CALL("GetRequestText", OBJECT(s_Server), INTEGER(message), TEXT(&code), TEXT(&text)) == 1 &&
        text != NULL) {
        printf("server: request %s \"%s\"\n", code, text);
        for (char *at = text; *at != 0; ++at) {
            *at = (char)toupper((unsigned char)*at);
        }
        CALL("SendText", OBJECT(s_Server), TEXT(code), TEXT(text));
    }
    Service(kFree, (uint32_t)code, 0);
    Service(kFree, (uint32_t)text, 0);
}

static void Check(int holds, const char *what) {
    if (!holds) {
        fprintf(stderr, "%s: not so\n", what);
        exit(1);
    }
}

int main(int argc, char **argv) {
    const struct Library *(*getNewInf)(void);
    int32_t (*notify)(int32_t code, uint32_t first, uint32_t second);
    void *loaded = dlopen(argc > 1 ? argv[1] : "libnrpc.so", RTLD_NOW);
    Check(loaded != NULL, "the library can be loaded");
    *(void **)&getNewInf = dlsym(loaded, "GetNewInf");
    *(void **)&notify = dlsym(loaded, "ProcessNotifyLib");
    Check(getNewInf != NULL && notify != NULL, "it has both exports");
    s_Library = getNewInf();
    Check(s_Library->Format == 20000101, "it has the descriptor's format");
    Check(notify(1, (uint32_t)Service, 0) == 0, "it takes the service function");

    int32_t port = 20000 + getpid() % 10000; // the first one from here that is free
    CALL("CreateServer", OBJECT(s_Server));
    while (!CALL("StartServer", OBJECT(s_Server), INTEGER(port), ROUTINE(OnEvent), LOGICAL(1))) {
        Check(++port < 32768, "a port is free");
    }
    CALL("CreateClient", OBJECT(s_Client)); // synchronous, so no handler: that cell is left out
    const struct Cell none = {0};
    int32_t result =
        CALL("ClientConnect", OBJECT(s_Client), INTEGER(port), TEXT("127.0.0.1"), LOGICAL(1), none);
    Check(result == 1, "the client connects");
    char *reply = NULL;
    result = CALL("SendSynRequestText", OBJECT(s_Client), TEXT("hello"), TEXT(&reply),
                  INTEGER(5000)); // milliseconds
    Check(result == 1 && reply != NULL, "the reply arrives in time");
    printf("client: reply \"%s\"\n", reply);
    Check(strcmp(reply, "HELLO") == 0, "it is the request in capitals");
    Service(kFree, (uint32_t)reply, 0);
    CALL("ReleaseClient", OBJECT(s_Client)); // disconnects
    for (int i = 0; i < 500 && s_Events[1] == 0; ++i) {
        usleep(10000);
    }
    CALL("ServerRelease", OBJECT(s_Server)); // stops; waits up to four seconds for handlers
    Check(s_Events[0] == 1 && s_Events[2] == 1 && s_Events[1] == 1, "a client came, asked, left");
    Check(s_Blocks == 0, "every block of the heap is back");
    return 0;
}
