// load.h: what the two halves of the load command share: making it and reporting it.
#pragma once

#include <cstdint>
#include <vector>

#include "program.h"

namespace nrpc::tool {

struct LoadOptions {
    std::string Server; // HOST:PORT
    int32_t Clients = 10;
    int32_t Requests = 0; // of all clients together; 0: as many as the time allows
    int32_t Seconds = 10;
    int32_t ByteCount = 64;
    std::string Mode = "sync";
    int32_t Window = 16; // requests under way on each asynchronous client
    int32_t TimeoutMs = 5000;
    bool Json = false;
};

struct LoadResult {
    uint64_t Replies = 0;
    uint64_t Wrong = 0;    // not the echo of a request under way on its client
    uint64_t Lost = 0;     // their connection ended
    uint64_t TimedOut = 0; // nothing came within the time-out
    uint64_t Connections = 0;
    double Seconds = 0;
    std::vector<float> Latencies; // of the right replies, in ms

    void Add(const LoadResult &other);
    bool IsGood() const { return Wrong + Lost + TimedOut == 0 && Replies > 0; }
};

// Sorts the latencies. As a table with a histogram, or as one JSON object.
void PrintLoad(const LoadOptions &options, LoadResult &result);

} // namespace nrpc::tool
