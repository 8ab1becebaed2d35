// support/live_object.h: which objects of the host are alive, and who still uses them.
//
//   The host holds a bare address of each object's record and may use it at any moment, on any
//   thread, also after it released the object. A command therefore never follows that address
//   before HoldObject has found it here and counted the command in.
//
//   Ownership  a published object is held once by the host object it belongs to, once by each of
//              its library threads and once by each command inside. Whoever drops the last hold
//              destroys it.
//   Locks      one small lock per bucket, held briefly and alone.
//   fork       in a child every object is forgotten: commands on them answer failure there, and
//              the parent's sockets are left alone.
#pragma once

#include <atomic>
#include <cstdint>

namespace nrpc {

enum ObjectKind : int32_t { kServerObject, kClientObject };

// Embedded in the record; `Record` is the address that the host knows.
struct LiveObject {
    void *Record;
    ObjectKind Kind;
    // Frees the record and all that it still owns. Called once, on the thread of the last drop.
    void (*Destroy)(void *record);
    std::atomic<int32_t> Holds;
    LiveObject *Next; // in its bucket, under the bucket's lock
};

// Makes the record findable, held once on behalf of the host object.
void PublishObject(LiveObject *object, void *record, ObjectKind kind,
                   void (*destroy)(void *record));
// Makes it unfindable. True for exactly one caller, who inherits the host object's hold. With
// `word`, the host's cell, the record `successor` (or null) takes its place in the same moment: who
// no longer finds the one sees the other there.
bool RetireObject(LiveObject *object, std::uintptr_t *word = nullptr,
                  const void *successor = nullptr);

// Counts the caller in if a live object of that kind has this record. False for any other address,
// null and released ones included.
bool HoldObject(const void *record, ObjectKind kind);
// For a further holder, when the caller already holds.
void HoldAgain(LiveObject *object);
void DropObject(LiveObject *object);

// The object of one command: counted in from here to the end of the scope. `word` is the host's
// cell that holds the record's address; null, and any address that is no live object, give an empty
// one.
template <typename Context, ObjectKind Kind>
class HeldObject {
  public:
    [[nodiscard]] explicit HeldObject(std::uintptr_t *word) : m_Word(word) {
        Context *seen = nullptr;
        for (Context *next = Read(); next != seen && m_Context == nullptr; next = Read()) {
            seen = next; // read again: it may have got a successor meanwhile
            m_Context = HoldObject(seen, Kind) ? seen : nullptr;
        }
    }
    ~HeldObject() {
        if (m_Context != nullptr) {
            DropObject(&m_Context->Life);
        }
    }
    HeldObject(const HeldObject &) = delete;
    HeldObject &operator=(const HeldObject &) = delete;

    explicit operator bool() const { return m_Context != nullptr; }
    Context *Get() const { return m_Context; }
    Context *operator->() const { return m_Context; }

    // Ends the life of the record for the host: whoever is still inside keeps it. False when its
    // life had ended before, also because another record took its place.
    bool Release() {
        const bool released = RetireObject(&m_Context->Life);
        if (released) {
            DropObject(&m_Context->Life);
        }
        return released;
    }

    // Gives the host object another record, or null for none, and releases this one. Nothing is
    // given where the object was released meanwhile.
    void Renew(Context *fresh) {
        if (RetireObject(&m_Context->Life, m_Word, fresh)) {
            DropObject(&m_Context->Life);
        } else if (fresh != nullptr && RetireObject(&fresh->Life)) {
            DropObject(&fresh->Life);
        }
    }

  private:
    Context *Read() const {
        return m_Word == nullptr
                   ? nullptr
                   : reinterpret_cast<Context *>(__atomic_load_n(m_Word, __ATOMIC_ACQUIRE));
    }

    std::uintptr_t *m_Word;
    Context *m_Context = nullptr;
};

} // namespace nrpc
