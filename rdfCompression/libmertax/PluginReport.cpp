#include "PluginReport.h"

#include "Hdf5Binding.h"

void PushHdf5Error(const char* function, EHdf5Error kind, const std::string& text)
{
    const CHdf5Functions* h5 = BoundHdf5();
    if (h5 == nullptr)
        return;
    const hid_t minor = kind == EHdf5Error::CALLBACK    ? *h5->pCallbackError
                        : kind == EHdf5Error::BAD_VALUE ? *h5->pBadValueError
                                                        : *h5->pFilterError;
    h5->pushError(H5E_DEFAULT, __FILE__, function, __LINE__, *h5->pErrorClass, *h5->pPipelineError, minor, "%s",
                  text.c_str());
}
