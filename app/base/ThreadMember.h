#pragma once

#include "app/base/Thread.h"

/// A member function without arguments and the object, borrowed, to call it on.
template <class T>
struct MemberCall {
    T* object;
    void (T::*function)();
};

/// A thread that runs a member function of T.
template <class T>
class ThreadMember : public Thread {
  public:
    ~ThreadMember() override = default;

    /// Thread entry. `record` is a heap-allocated MemberCall<T>, which it then owns, or null.
    /// Touches neither the object nor this thread's wrapper after the call: both may be gone.
    static void* StartMemberFunction(void* record) {
        if (record == nullptr) {
            return nullptr;
        }
        auto* const call = static_cast<MemberCall<T>*>(record);
        (call->object->*call->function)();
        delete call;
        return nullptr;
    }
};

/// Starts `function` of `object` on `thread`; returns the thread's status code. When the start
/// fails the record leaks: the caller ends the process, or is its end.
template <class T>
[[nodiscard]] int startMember(ThreadMember<T>& thread, T* object, void (T::*function)()) {
    auto* const record = new MemberCall<T>{object, function};
    return thread.start(ThreadMember<T>::StartMemberFunction, record);
}
