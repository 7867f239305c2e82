#include "bench/library.h"

#include <dlfcn.h>

#include "bench/rows.h"

namespace bench {
namespace {

template <class Function>
void find(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function == nullptr) give_up(dlerror());
}

}  // namespace

Library load(const char* path)
{
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) give_up(dlerror());
    Library loaded;
    find(library, "zt_ipipe_open", loaded.open);
    find(library, "zt_pipe_write", loaded.write);
    find(library, "zt_pipe_read", loaded.read);
    find(library, "zt_ipipe_close", loaded.close);
    return loaded;
}

}  // namespace bench
