#include "support/live_object.h"

#include <pthread.h>

#include "support/budget.h"

namespace nrpc {

namespace {

struct Bucket {
    pthread_mutex_t Lock;
    LiveObject *First;
};

constexpr uint32_t kBucketCount = 32; // a fork takes the locks of all
Bucket s_Buckets[kBucketCount];       // zeros are valid locks and empty chains

// A plain mutex, not a heap lock: the buckets exist from load to the end of the process.
class BucketGuard {
  public:
    explicit BucketGuard(Bucket *bucket) : m_Bucket(bucket) { pthread_mutex_lock(&bucket->Lock); }
    ~BucketGuard() { pthread_mutex_unlock(&m_Bucket->Lock); }
    BucketGuard(const BucketGuard &) = delete;
    BucketGuard &operator=(const BucketGuard &) = delete;

  private:
    Bucket *m_Bucket;
};

} // namespace

static Bucket *BucketOf(const void *record) {
    const auto address = reinterpret_cast<std::uintptr_t>(record);
    return &s_Buckets[(address >> 4 ^ address >> 12) % kBucketCount];
}

// The link that points to the object with this record, or to null.
static LiveObject **LinkTo(Bucket *bucket, const void *record) {
    LiveObject **link = &bucket->First;
    while (*link != nullptr && (*link)->Record != record) {
        link = &(*link)->Next;
    }
    return link;
}

static void LockAllForFork() {
    for (Bucket &bucket : s_Buckets) {
        pthread_mutex_lock(&bucket.Lock);
    }
}

static void UnlockAllInParent() {
    for (Bucket &bucket : s_Buckets) {
        pthread_mutex_unlock(&bucket.Lock);
    }
}

static void ForgetAllInChild() {
    for (Bucket &bucket : s_Buckets) {
        bucket.First = nullptr;
        pthread_mutex_unlock(&bucket.Lock);
    }
    ForgetBudget();
}

static void WatchForks() {
    pthread_atfork(LockAllForFork, UnlockAllInParent, ForgetAllInChild);
}

void PublishObject(LiveObject *object, void *record, ObjectKind kind,
                   void (*destroy)(void *record)) {
    static pthread_once_t s_Once = PTHREAD_ONCE_INIT;
    pthread_once(&s_Once, WatchForks);

    object->Record = record;
    object->Kind = kind;
    object->Destroy = destroy;
    object->Holds = 1;
    Bucket *bucket = BucketOf(record);
    BucketGuard guard(bucket);
    object->Next = bucket->First;
    bucket->First = object;
}

// The check does not see the atomic store.
// NOLINTNEXTLINE(readability-non-const-parameter)
bool RetireObject(LiveObject *object, std::uintptr_t *word, const void *successor) {
    Bucket *bucket = BucketOf(object->Record);
    BucketGuard guard(bucket);
    LiveObject **link = LinkTo(bucket, object->Record);
    if (*link != object) {
        return false;
    }
    *link = object->Next;
    if (word != nullptr) {
        __atomic_store_n(word, reinterpret_cast<std::uintptr_t>(successor), __ATOMIC_RELEASE);
    }
    return true;
}

bool HoldObject(const void *record, ObjectKind kind) {
    if (record == nullptr) {
        return false;
    }
    Bucket *bucket = BucketOf(record);
    BucketGuard guard(bucket);
    LiveObject *object = *LinkTo(bucket, record);
    if (object == nullptr || object->Kind != kind) {
        return false;
    }
    ++object->Holds;
    return true;
}

void HoldAgain(LiveObject *object) {
    ++object->Holds;
}

void DropObject(LiveObject *object) {
    if (--object->Holds == 0) {
        object->Destroy(object->Record);
    }
}

} // namespace nrpc
