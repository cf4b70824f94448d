#include "update/curl_functions.h"

#include <cassert>
#include <dlfcn.h>

#include "app/base/console.h"
#include "common/thread_check.h"

decltype(&::curl_global_init) curl_global_init2 = nullptr;
decltype(&::curl_global_cleanup) curl_global_cleanup2 = nullptr;
decltype(&::curl_easy_init) curl_easy_init2 = nullptr;
decltype(&::curl_easy_setopt) curl_easy_setopt2 = nullptr;
decltype(&::curl_easy_perform) curl_easy_perform2 = nullptr;
decltype(&::curl_easy_cleanup) curl_easy_cleanup2 = nullptr;
decltype(&::curl_easy_strerror) curl_easy_strerror2 = nullptr;

namespace {

constexpr const char* LIBRARY = "libcurl.so.4";

/// Judged one by one, because dlerror only remembers the last look-up.
template <class Function>
bool lookUp(void* library, const char* name, Function& function) {
    ::dlerror();
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return ::dlerror() == nullptr && function != nullptr;
}

}  // namespace

bool loadCurlFunctions() {
    assert(onMainThread());
    void* const library = ::dlopen(LIBRARY, RTLD_NOW);
    if (library == nullptr) {
        consolePrintf("Error, could not dlopen the cURL shared library %s.\n", LIBRARY);
        return false;
    }
    bool complete = lookUp(library, "curl_global_init", curl_global_init2);
    complete &= lookUp(library, "curl_global_cleanup", curl_global_cleanup2);
    complete &= lookUp(library, "curl_easy_init", curl_easy_init2);
    complete &= lookUp(library, "curl_easy_setopt", curl_easy_setopt2);
    complete &= lookUp(library, "curl_easy_perform", curl_easy_perform2);
    complete &= lookUp(library, "curl_easy_cleanup", curl_easy_cleanup2);
    complete &= lookUp(library, "curl_easy_strerror", curl_easy_strerror2);
    if (!complete) {
        consolePrintf("Error, could not dlsym a member of the cURL shared library %s.\n", LIBRARY);
    }
    return complete;
}
