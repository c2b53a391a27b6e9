#include "Hdf5Binding.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <atomic>
#include <mutex>

namespace {

#ifdef _WIN32
// The DLL that holds `address`; a module handle needs no closing.
void* LibraryHolding(const void* address)
{
    HMODULE module = nullptr;
    if (address == nullptr ||
        !GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<LPCWSTR>(address), &module))
        return nullptr;
    return module;
}

// An HDF5 DLL already loaded under one of the names its builds give it.
void* DefaultLibrary()
{
    for (const wchar_t* name : {L"hdf5.dll", L"libhdf5.dll"})
        if (HMODULE module = GetModuleHandleW(name))
            return module;
    return nullptr;
}

void* Symbol(void* library, const char* name)
{
    return library == nullptr ? nullptr
                              : reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
#else
// The library that holds `address`, already loaded; the handle is never closed, so the library
// stays as long as the process.
void* LibraryHolding(const void* address)
{
    Dl_info info;
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr)
        return nullptr;
    return dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
}

// The process's global scope: the HDF5 that the program itself links.
void* DefaultLibrary() { return RTLD_DEFAULT; }

void* Symbol(void* library, const char* name) { return dlsym(library, name); }
#endif

template <typename F>
bool Find(void* library, const char* name, F& function)
{
    function = reinterpret_cast<F>(Symbol(library, name));
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
    if (!(caller != nullptr && BindFrom(caller, found)) && !BindFrom(DefaultLibrary(), found))
        return nullptr;
    s_functions = found;
    s_bound.store(&s_functions, std::memory_order_release);
    return &s_functions;
}

const CHdf5Functions* BoundHdf5()
{
    return s_bound.load(std::memory_order_acquire);
}
