// The stored Wi-Fi networks of the host's network service and the network of the connection.
#pragma once

#include <string>

namespace qvhost {

// Makes the stored network `essid` the network of the connection; false when none is stored
// under that name.
bool MakeCurrentNetwork(const std::string& essid);

}  // namespace qvhost
