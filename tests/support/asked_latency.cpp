// Asks an output device for ASKED_LATENCY_MS in place of what the program asks for (LD_PRELOAD).

#include <cstdlib>
#include <dlfcn.h>

#include <portaudio.h>

extern "C" PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input,
                                 const PaStreamParameters* output, double rate,
                                 unsigned long frames, PaStreamFlags flags,
                                 PaStreamCallback* function, void* data) {
    using Open = decltype(&Pa_OpenStream);
    static const auto open = reinterpret_cast<Open>(::dlsym(RTLD_NEXT, "Pa_OpenStream"));
    const char* const asked = std::getenv("ASKED_LATENCY_MS");
    if (open == nullptr || asked == nullptr || output == nullptr) {
        return open == nullptr ? paInternalError
                               : open(stream, input, output, rate, frames, flags, function, data);
    }
    PaStreamParameters other = *output;
    other.suggestedLatency = std::strtod(asked, nullptr) / 1000;
    return open(stream, input, &other, rate, frames, flags, function, data);
}
