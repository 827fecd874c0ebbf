#include "Upcall.h"

namespace nexnipc {

Call Call::event(std::uint16_t eventId, std::uint16_t peerId) {
    Call call;
    call.type = EVENT;
    call.eventId = eventId;
    call.peerId = peerId;
    return call;
}

bool Upcall::run(Call& call) {
    const CallGate::Entry entry(gate);
    if (!entry) return false;
    nexNipc_parameter_t parameter{};
    parameter.peerId = call.peerId;
    parameter.type = call.type;
    parameter.functionId = call.functionId;
    parameter.eventId = call.eventId;
    parameter.length = &call.length;
    parameter.status = &call.status;
    parameter.data = call.data;
    parameter.userContext = userContext_;
    parameter.requestContext = reinterpret_cast<void*>(static_cast<std::uintptr_t>(call.context));
    try {
        listener_(&parameter);
    } catch (...) {
        call.status = -1;
    }
    return true;
}

}  // namespace nexnipc
