#include <sched.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/mutex.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/text.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>

namespace {

constexpr int memory_class = 3;
constexpr const char* this_file = "open_files";

struct Entry : zt_file_entry {
    Entry* next_in_chain;
    Entry* newer;
    Entry* older;
};

/// The entries, in the order in which they came, and in chains by key for finding one. The number of chains
/// is fixed, so that an entry costs one block and a registry without entries costs none. A chain keeps the
/// order too: its first match is the oldest.
class Table {
  public:
    void append(Entry* entry)
    {
        *find_link(chain_of(entry->key), [](const Entry&) { return false; }) = entry;
        entry->older = newest_;
        *(newest_ ? &newest_->newer : &oldest_) = entry;
        newest_ = entry;
    }

    /// Takes the oldest entry with this kind and key out; null when there is none.
    Entry* take(int kind, const void* key)
    {
        Entry** const link = find_link(
            chain_of(key), [=](const Entry& entry) { return entry.kind == kind && entry.key == key; });
        Entry* const entry = *link;
        if (!entry) return nullptr;
        *link = entry->next_in_chain;
        *(entry->older ? &entry->older->newer : &oldest_) = entry->newer;
        *(entry->newer ? &entry->newer->older : &newest_) = entry->older;
        return entry;
    }

    const Entry* oldest() const { return oldest_; }

    void forget_all() { *this = Table(); }

  private:
    static constexpr unsigned chain_bits = 12;

    /// The link that leads to the first match, or the empty one at the chain's end.
    template <class Predicate>
    static Entry** find_link(Entry*& chain, Predicate matches)
    {
        Entry** link = &chain;
        while (*link && !matches(**link)) link = &(*link)->next_in_chain;
        return link;
    }

    Entry*& chain_of(const void* key)
    {
        // Addresses of blocks differ in their middle bits; the multiplication brings them to the top.
        const uint64_t mixed = reinterpret_cast<uintptr_t>(key) * UINT64_C(0x9E3779B97F4A7C15);
        return chains_[mixed >> (64 - chain_bits)];
    }

    Entry* chains_[1U << chain_bits] = {};
    Entry* oldest_ = nullptr;
    Entry* newest_ = nullptr;
};

constinit zt::Mtx registry_lock;
constinit Table table;
constinit bool changing = false;

/// The process that the lock belongs to, negative while that process gives itself a fresh one.
constinit std::atomic<pid_t> owner{0};

/// In a forked child the lock may be held by a thread that exists in the parent only, and that thread may
/// have left the table half changed.
void start_afresh()
{
    new (&registry_lock) zt::Mtx;
    if (changing) table.forget_all();
    changing = false;
}

void adopt_registry()
{
    const pid_t self = getpid();
    for (pid_t seen = owner.load(std::memory_order_acquire); seen != self;
         seen = owner.load(std::memory_order_acquire)) {
        if (seen == -self) {
            sched_yield();  // another thread of this process is at it
        } else if (owner.compare_exchange_strong(seen, -self)) {
            start_afresh();
            owner.store(self, std::memory_order_release);
        }
    }
}

class Locked {
  public:
    Locked()
    {
        adopt_registry();
        registry_lock.lock();
    }
    ~Locked() { registry_lock.unlock(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
};

class LockedForChange : Locked {
  public:
    LockedForChange() { mark(true); }
    ~LockedForChange() { mark(false); }

  private:
    /// A fork in another thread must find the mark and the table in the order of the program.
    static void mark(bool value)
    {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        changing = value;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
};

Entry* make_entry(int kind, const char* name, const void* block, const char* file, int line)
{
    void* const memory = zt_mem_icalloc(memory_class, 1, sizeof(Entry), 0, this_file, __LINE__);
    if (!memory) return nullptr;
    Entry* const entry = new (memory) Entry{};
    entry->kind = kind;
    entry->key = block;
    entry->line = line;
    entry->pid = getpid();
    zt_strncpy(entry->name, name ? name : "", sizeof entry->name);
    zt_trim_filename(file ? file : "", sizeof entry->file, entry->file);
    return entry;
}

}  // namespace

extern "C" uint32_t zt_file_init(int, zt::Status*)
{
    adopt_registry();
    return 0;
}

extern "C" int zt_ifile_add_entry(int kind, const char* name, void* block, int, const char* file, int line)
{
    if (!block) {
        errno = EINVAL;
        return -1;
    }
    Entry* const entry = make_entry(kind, name, block, file, line);
    if (!entry) return -1;
    LockedForChange guard;
    table.append(entry);
    return 0;
}

extern "C" int zt_ifile_del_entry(int kind, const void* key)
{
    Entry* entry = nullptr;
    {
        LockedForChange guard;
        entry = table.take(kind, key);
    }
    if (!entry) return 0;
    zt_mem_ifree(memory_class, entry, this_file, __LINE__);
    return 1;
}

extern "C" int zt_ifile_list(int kind, void (*visit)(const zt_file_entry*, void*), void* context)
{
    Locked guard;
    int shown = 0;
    for (const Entry* entry = table.oldest(); entry; entry = entry->newer) {
        if (entry->kind != kind) continue;
        if (visit) visit(entry, context);
        ++shown;
    }
    return shown;
}

extern "C" int zt_ifile_count(int kind)
{
    return zt_ifile_list(kind, nullptr, nullptr);
}
