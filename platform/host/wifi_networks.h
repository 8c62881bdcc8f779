// The stored Wi-Fi networks of the host's network service and the network of the connection.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qvhost {

// Makes the stored network `essid` the network of the connection; false when none is stored
// under that name.
bool MakeCurrentNetwork(const std::string& essid);
// The name of the network of the connection (or of the last one), empty when there was none.
std::string CurrentNetworkName();

// What a connect needs of a stored network.
struct StoredCredentials {
    std::string key;
    std::string password;
    int security = 0;
};
std::optional<StoredCredentials> FindStoredNetwork(const std::string& essid);
// The names of the stored networks, in slot order.
std::vector<std::string> StoredNetworkNames();
// Removes the stored network `essid` (the others move up a slot); false when none is stored.
bool ForgetStoredNetwork(const std::string& essid);

}  // namespace qvhost
