#include "web/upstream/worker.h"

#include <algorithm>
#include <cassert>

namespace vxweb {

void Worker::attach(ChannelId channel, const std::shared_ptr<Subscriber>& subscriber,
                    const PacketPtr& intro) {
    assert(here());
    if (subscriber->left) {
        return;
    }
    subscribers_[channel].push_back(subscriber);
    if (ending_) {
        subscriber->shutDown();
    } else if (intro) {
        subscriber->take(intro);
    }
}

void Worker::detach(ChannelId channel, const Subscriber* subscriber) {
    assert(here());
    auto& list = subscribers_[channel];
    const auto found = std::find_if(list.begin(), list.end(), [subscriber](const auto& other) {
        return other.get() == subscriber;
    });
    if (found != list.end()) {
        *found = std::move(list.back());
        list.pop_back();
    }
}

void Worker::deliver(ChannelId channel, const PacketPtr& packet) {
    assert(here());
    for (const auto& subscriber : subscribers_[channel]) {
        subscriber->take(packet);
    }
}

void Worker::shutDown() {
    assert(here());
    ending_ = true;
    for (const auto& list : subscribers_) {
        for (const auto& subscriber : list) {
            subscriber->shutDown();
        }
    }
}

void Worker::cut() {
    assert(here());
    for (const auto& list : subscribers_) {
        for (const auto& subscriber : list) {
            subscriber->cut();
        }
    }
}

}  // namespace vxweb
