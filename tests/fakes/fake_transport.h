#pragma once

// A transport client that records what the bridge publishes. A test can hold a
// publishing thread inside publish() through the before_publish hook.

#include <functional>
#include <mutex>

#include "transport.h"

namespace ipcd_test {

class FakeTransport : public ecu::kora::com::ITransportClient {
public:
    using Message = ecu::kora::com::Message;

    bool connect() override { return true; }
    int publish(const std::string& topic, Message& msg) override {
        if (before_publish) {
            before_publish(topic);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_published.emplace_back(topic, msg);
        return publish_result;
    }
    bool subscribe(const std::string&, int,
                   std::shared_ptr<ecu::kora::com::ISubscriptionObserver>) override {
        return true;
    }
    bool start() override { return true; }
    bool stop() override { return true; }
    const std::string& client_name() const override { return m_name; }

    std::vector<std::pair<std::string, Message>> published() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_published;
    }
    std::vector<std::string> published_topics() const {
        std::vector<std::string> topics;
        for (const auto& p : published()) {
            topics.push_back(p.first);
        }
        return topics;
    }

    int publish_result = 1;
    std::function<void(const std::string&)> before_publish;

private:
    mutable std::mutex m_mutex;
    std::string m_name = "fake-ipcd";
    std::vector<std::pair<std::string, Message>> m_published;
};

}  // namespace ipcd_test
