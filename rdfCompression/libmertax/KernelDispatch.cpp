#include "KernelDispatch.h"

#include <atomic>

namespace {

constexpr CCellKernels PORTABLE_CELLS = {OrOfWordsPortable, ByteRowPortable};
constexpr CKernels PORTABLE_KERNELS = {"portable", SpreadSlotsPortable, ClassifySlotsPortable, PORTABLE_CELLS, nullptr,
                                       {MarkRepeatsPortable, PackNibblesPortable, nullptr}};
#ifdef MERTAX_HAVE_X86_KERNELS
constexpr CKernels SSSE3_KERNELS = {"ssse3", SpreadSlotsSsse3, ClassifySlotsSsse3, PORTABLE_CELLS, nullptr,
                                    {MarkRepeatsPortable, PackNibblesPortable, nullptr}};
constexpr CKernels AVX2_KERNELS = {"avx2", SpreadSlotsSsse3, ClassifySlotsSsse3, {OrOfWordsAvx2, ByteRowAvx2},
                                   CodeMapGroupsAvx2, {MarkRepeatsAvx2, PackNibblesAvx2, nullptr}};
constexpr CKernels AVX512_KERNELS = {"avx512", SpreadSlotsAvx512, ClassifySlotsAvx512, {OrOfWordsAvx512, ByteRowAvx512},
                                     CodeMapGroupsAvx512,
                                     {MarkRepeatsAvx512, PackNibblesAvx512, CodeRunWindowsAvx512}};
#endif
#ifdef MERTAX_HAVE_NEON_KERNELS
constexpr CKernels NEON_KERNELS = {"neon", SpreadSlotsNeon, ClassifySlotsNeon, PORTABLE_CELLS, nullptr,
                                   {MarkRepeatsNeon, PackNibblesNeon, nullptr}};
#endif

std::vector<EKernelSet> DetectKernelSets()
{
    std::vector<EKernelSet> sets = {EKernelSet::PORTABLE};
#ifdef MERTAX_HAVE_X86_KERNELS
    __builtin_cpu_init();
    if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt"))
        sets.push_back(EKernelSet::SSSE3);
    if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
        __builtin_cpu_supports("popcnt"))
        sets.push_back(EKernelSet::AVX2);
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") &&
        __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt"))
        sets.push_back(EKernelSet::AVX512);
#endif
#ifdef MERTAX_HAVE_NEON_KERNELS
    sets.push_back(EKernelSet::NEON);
#endif
    return sets;
}

std::atomic<const CKernels*> s_active{nullptr};

} // namespace

const std::vector<EKernelSet>& SupportedKernelSets()
{
    static const std::vector<EKernelSet> sets = DetectKernelSets();
    return sets;
}

const CKernels& KernelsOf(EKernelSet set)
{
    switch (set) {
#ifdef MERTAX_HAVE_X86_KERNELS
    case EKernelSet::SSSE3:
        return SSSE3_KERNELS;
    case EKernelSet::AVX2:
        return AVX2_KERNELS;
    case EKernelSet::AVX512:
        return AVX512_KERNELS;
#endif
#ifdef MERTAX_HAVE_NEON_KERNELS
    case EKernelSet::NEON:
        return NEON_KERNELS;
#endif
    default:
        return PORTABLE_KERNELS;
    }
}

const CKernels& ActiveKernels()
{
    const CKernels* active = s_active.load(std::memory_order_acquire);
    if (active == nullptr) {
        active = &KernelsOf(SupportedKernelSets().back());
        s_active.store(active, std::memory_order_release);
    }
    return *active;
}

bool UseKernelSet(EKernelSet set)
{
    for (EKernelSet supported : SupportedKernelSets()) {
        if (supported == set) {
            s_active.store(&KernelsOf(set), std::memory_order_release);
            return true;
        }
    }
    return false;
}
