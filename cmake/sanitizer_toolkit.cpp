// Tells the thread sanitizer about synchronisation in the toolkit, which is not built with it:
// signal arguments are written before the slot reads them, and the slot is done before a blocking
// emission returns. Both functions replace the toolkit's. Linked into the server when it is built
// with the thread sanitizer.

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

#include <QEvent>
#include <QObject>
#include <QThread>

namespace {

/// The toolkit's own function of a mangled name.
template <class Function>
Function toolkits(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void QMetaObject::activate(QObject* sender, const QMetaObject* meta, int signal, void** arguments) {
    using Activate = void (*)(QObject*, const QMetaObject*, int, void**);
    static const auto next = toolkits<Activate>("_ZN11QMetaObject8activateEP7QObjectPKS_iPPv");
    // Afterwards the sender may be gone: only its address is used.
    const bool toAnotherThread = sender->thread() != QThread::currentThread();
    if (toAnotherThread) {
        __tsan_release(sender);
    }
    next(sender, meta, signal, arguments);
    if (toAnotherThread) {
        __tsan_acquire(sender);
    }
}

// Our signals are connected to slots of the same object, so its address identifies the call.
bool QObject::event(QEvent* event) {
    using Event = bool (*)(QObject*, QEvent*);
    static const auto next = toolkits<Event>("_ZN7QObject5eventEP6QEvent");
    const bool isCall = event->type() == QEvent::MetaCall;
    if (isCall) {
        __tsan_acquire(this);
    }
    const bool result = next(this, event);
    if (isCall) {
        __tsan_release(this);
    }
    return result;
}
