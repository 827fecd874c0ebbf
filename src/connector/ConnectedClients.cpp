#include "connector/ConnectedClients.h"

namespace nipcconnector {

ConnectedClients& connectedClientSet() {
    static ConnectedClients& instance = *new ConnectedClients;
    return instance;
}

}  // namespace nipcconnector
