#include <pthread.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/memory.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int memory_class = 2;

/// The loan of another environment to the process. Readers take no lock, and one in a signal handler may have
/// interrupted the lender anywhere: between any two stores the right answer is there to be had.
struct Loan {
    std::atomic<bool> lasts{false};
    std::atomic<char**> own{nullptr};  // what the process has itself, while the loan lasts
    std::atomic<unsigned> number{0};  // counted up between the loan's beginning and the exchange of `environ`
};
constinit Loan loan;

std::atomic_ref<char**> installed()
{
    return std::atomic_ref(environ);
}

/// Length of the name in NAME=value, 0 for an entry of another form.
size_t name_length(const char* entry)
{
    const char* mark = strchr(entry, '=');
    return mark ? static_cast<size_t>(mark - entry) : 0;
}

struct Extent {
    size_t entries = 0;
    size_t bytes = 0;

    void add(const char* const* vector)
    {
        for (; vector && *vector; ++vector) ++entries, bytes += strlen(*vector) + 1;
    }
};

/// The names of one environment, each with its last entry. Open addressing over slots that come zeroed; their
/// number is a power of two, at least twice that of the entries.
class Names {
  public:
    struct Slot {
        const char* entry;
        bool placed;
    };

    static size_t slots_for(size_t entries)
    {
        size_t slots = 2;
        while (slots < 2 * entries) slots *= 2;
        return slots;
    }

    Names(Slot* slots, size_t count) : slots_(slots), mask_(count - 1) {}

    void add(const char* entry)
    {
        if (const size_t length = name_length(entry)) slot(entry, length)->entry = entry;
    }

    /// The slot for the name of an entry, null when the name was never added.
    Slot* find(const char* entry) const
    {
        const size_t length = name_length(entry);
        Slot* const found = length ? slot(entry, length) : nullptr;
        return found && found->entry ? found : nullptr;
    }

  private:
    Slot* slot(const char* entry, size_t length) const
    {
        for (size_t at = hash(entry, length);; ++at) {
            Slot& candidate = slots_[at & mask_];
            if (!candidate.entry || same_name(candidate.entry, entry, length)) return &candidate;
        }
    }

    static size_t hash(const char* name, size_t length)
    {
        uint64_t value = 14695981039346656037U;  // FNV-1a
        for (size_t i = 0; i < length; ++i)
            value = (value ^ static_cast<unsigned char>(name[i])) * 1099511628211U;
        return static_cast<size_t>(value ^ (value >> 32));
    }

    static bool same_name(const char* known, const char* entry, size_t length)
    {
        return strncmp(known, entry, length) == 0 && known[length] == '=';
    }

    Slot* const slots_;
    const size_t mask_;
};

/// Fills one block that begins with the vector, so that freeing the vector frees everything: the vector, then
/// the slots that are needed only while it is made, then the texts.
class Builder {
  public:
    Builder(char* block, size_t slots_offset, size_t text_offset)
        : next_(reinterpret_cast<char**>(block)),
          slots_(reinterpret_cast<Names::Slot*>(block + slots_offset)),
          text_(block + text_offset)
    {
    }

    Names::Slot* slots() const { return slots_; }

    void append(const char* entry)
    {
        const size_t size = strlen(entry) + 1;
        *next_++ = static_cast<char*>(memcpy(text_, entry, size));
        text_ += size;
    }

    void append_all(const char* const* entries)
    {
        for (; *entries; ++entries) append(*entries);
    }

  private:
    char** next_;
    Names::Slot* const slots_;
    char* text_;
};

/// Places the entry that a name has in the end, once.
void place(Builder& builder, Names::Slot& slot)
{
    if (!slot.placed) builder.append(slot.entry);
    slot.placed = true;
}

void merge(Builder& builder, Names names, const char* const* current, const char* const* envp)
{
    for (const char* const* entry = envp; *entry; ++entry) names.add(*entry);
    for (const char* const* entry = current; entry && *entry; ++entry) {
        if (Names::Slot* slot = names.find(*entry))
            place(builder, *slot);
        else
            builder.append(*entry);
    }
    for (const char* const* entry = envp; *entry; ++entry) {
        Names::Slot* const slot = names.find(*entry);
        if (!slot)
            builder.append(*entry);
        else if (slot->entry == *entry)
            place(builder, *slot);
    }
}

}  // namespace

namespace {

/// A child that one thread forks while another one has the environment lent starts with the process's own.
void take_back_in_child()
{
    if (loan.lasts) installed() = loan.own;
    loan.lasts = false;
}

[[maybe_unused]] const int fork_handler = pthread_atfork(nullptr, nullptr, take_back_in_child);

}  // namespace

// Looked up by hand: getenv would look into the lent environment.
extern "C" const char* zt_getenv(const char* name)
{
    if (!name || *name == '\0' || strchr(name, '=')) return nullptr;
    char* const* entry = zt_own_environ();
    const size_t length = strlen(name);
    for (; entry && *entry; ++entry)
        if (strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') return *entry + length + 1;
    return nullptr;
}

// What is installed is the process's own only if no loan has begun before it was read. Another round comes
// only of another loan by another thread.
extern "C" char** zt_own_environ(void)
{
    for (;;) {
        const unsigned number = loan.number;
        if (loan.lasts) return loan.own;
        char** const found = installed();
        if (loan.number == number) return found;
    }
}

extern "C" char** zt_environ_lend(const char* const* envp)
{
    char** const own = installed();
    loan.own = own;
    loan.lasts = true;
    ++loan.number;
    installed() = const_cast<char**>(envp);
    return own;
}

extern "C" void zt_environ_take_back(char** own)
{
    if (own) installed() = own;
    loan.lasts = false;
}

extern "C" int zt_combine_environs(const char* const* envp, int merge_current, char*** out)
{
    if (out) *out = nullptr;
    if (!envp || !out) {
        errno = EINVAL;
        return -1;
    }
    char* const* const current = merge_current ? zt_own_environ() : nullptr;
    Extent extent;
    extent.add(envp);
    const size_t slot_count = merge_current ? Names::slots_for(extent.entries) : 0;
    extent.add(current);

    const size_t slots_offset = (extent.entries + 1) * sizeof(char*);
    const size_t text_offset = slots_offset + slot_count * sizeof(Names::Slot);
    void* const block =
        zt_mem_icalloc(memory_class, 1, text_offset + extent.bytes, 0, "environment", __LINE__);
    if (!block) return -1;

    Builder builder(static_cast<char*>(block), slots_offset, text_offset);
    if (merge_current)
        merge(builder, Names(builder.slots(), slot_count), current, envp);
    else
        builder.append_all(envp);
    *out = static_cast<char**>(block);
    return 0;
}
