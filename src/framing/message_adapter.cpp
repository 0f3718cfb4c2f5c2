#include "message_adapter.h"

namespace ecu::kora::com::detail {

const std::shared_ptr<logging::LogModule>& adapter_log() {
    static const auto module = logging::module("kora.com.messageadapter");
    return module;
}

}  // namespace ecu::kora::com::detail
