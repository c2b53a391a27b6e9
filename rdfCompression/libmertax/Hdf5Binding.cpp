#include "Hdf5Binding.h"

#include <dlfcn.h>

#include <atomic>
#include <mutex>

namespace {

template <typename F>
bool Find(void* library, const char* name, F& function)
{
    function = reinterpret_cast<F>(dlsym(library, name));
    return function != nullptr;
}

bool BindFrom(void* library, CHdf5Functions& f)
{
    return Find(library, "H5Pget_filter_by_id2", f.getFilterById) &&
           Find(library, "H5Pmodify_filter", f.modifyFilter) && Find(library, "H5Tget_size", f.typeSize) &&
           Find(library, "H5Sget_simple_extent_npoints", f.extentPoints) &&
           Find(library, "H5Epush2", f.pushError) && Find(library, "H5E_ERR_CLS_g", f.pErrorClass) &&
           Find(library, "H5E_PLINE_g", f.pPipelineError) && Find(library, "H5E_CALLBACK_g", f.pCallbackError) &&
           Find(library, "H5E_CANTFILTER_g", f.pFilterError) && Find(library, "H5E_BADVALUE_g", f.pBadValueError);
}

// The library that holds `address`, already loaded; the handle is never closed, so the library
// stays as long as the process.
void* LibraryHolding(const void* address)
{
    Dl_info info;
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr)
        return nullptr;
    return dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
}

CHdf5Functions s_functions;
std::atomic<const CHdf5Functions*> s_bound{nullptr};
std::mutex s_bindMutex;

} // namespace

const CHdf5Functions* BindHdf5(const void* pCallerAddress)
{
    if (const CHdf5Functions* bound = s_bound.load(std::memory_order_acquire))
        return bound;
    std::lock_guard<std::mutex> lock(s_bindMutex);
    if (const CHdf5Functions* bound = s_bound.load(std::memory_order_acquire))
        return bound;
    CHdf5Functions found{};
    void* caller = LibraryHolding(pCallerAddress);
    if (!(caller != nullptr && BindFrom(caller, found)) && !BindFrom(RTLD_DEFAULT, found))
        return nullptr;
    s_functions = found;
    s_bound.store(&s_functions, std::memory_order_release);
    return &s_functions;
}

const CHdf5Functions* BoundHdf5()
{
    return s_bound.load(std::memory_order_acquire);
}
