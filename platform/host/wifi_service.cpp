// The Wi-Fi service of the host platform: scans, connects, the network manager and the radio.
//
// Everything it knows lives in the state directory, so every process of the device sees one
// service: the switches and the behaviour asked for by tests in the shared "network.state" block
// (network_state.h), the stored networks in "networks.cfg" (wifi_networks.cpp), and the access
// points in reach in "wifi_air.txt", one per line:
//     essid TAB security TAB passphrase TAB quality TAB level TAB channel TAB hidden
// replaced by a rename, so a reader sees the old list or the new. No file means the default air
// (see moorglass_host.h).
//
// The blocking calls sleep for the delay a test asked for, with the link in NET_STATE_CONNECTING
// meanwhile, as a real radio takes its time to associate; requests see the link move.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <condition_variable>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "network_state.h"
#include "wifi_networks.h"

namespace qvhost {
namespace {

constexpr const char* kAirName = "wifi_air.txt";
constexpr size_t kLongestEssid = 32;

struct AccessPoint {
    std::string essid;
    int security = NET_SEC_OPEN;
    std::string passphrase;
    int quality = 0;
    int level = 0;
    int channel = 0;
    bool hidden = false;
};

using Air = std::vector<AccessPoint>;

bool UsableEssid(const char* essid) {
    if (!essid) return false;
    size_t length = std::strlen(essid);
    return length > 0 && length <= kLongestEssid && !std::strpbrk(essid, "\t\r\n");
}

bool UsablePassphrase(const char* passphrase) {
    return !passphrase || !std::strpbrk(passphrase, "\t\r\n");
}

int ToInt(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::optional<AccessPoint> ParseAirLine(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream stream(line);
    std::string field;
    while (std::getline(stream, field, '\t'))
        fields.push_back(field);
    if (fields.size() < 7 || fields[0].empty()) return std::nullopt;
    return AccessPoint{fields[0],        ToInt(fields[1]), fields[2],
                       ToInt(fields[3]), ToInt(fields[4]), ToInt(fields[5]),
                       ToInt(fields[6]) != 0};
}

// Nothing: the default air.
std::optional<Air> LoadAir() {
    std::ifstream file(StatePath(kAirName));
    if (!file) return std::nullopt;
    Air air;
    std::string line;
    while (std::getline(file, line)) {
        if (auto ap = ParseAirLine(line)) air.push_back(std::move(*ap));
    }
    return air;
}

bool SaveAir(const std::optional<Air>& air) {
    std::string path = StatePath(kAirName);
    if (!air) return ::unlink(path.c_str()) == 0 || errno == ENOENT;
    EnsureStateDir();
    std::string temporary = path + ".new." + std::to_string(::getpid());
    {
        std::ofstream out(temporary, std::ios::trunc);
        for (const AccessPoint& ap : *air) {
            out << ap.essid << '\t' << ap.security << '\t' << ap.passphrase << '\t' << ap.quality
                << '\t' << ap.level << '\t' << ap.channel << '\t' << (ap.hidden ? 1 : 0) << '\n';
        }
        if (!out.flush()) {
            ::unlink(temporary.c_str());
            return false;
        }
    }
    return ::rename(temporary.c_str(), path.c_str()) == 0;
}

const AccessPoint* FindAccessPoint(const Air& air, const std::string& essid) {
    for (const AccessPoint& ap : air)
        if (ap.essid == essid) return &ap;
    return nullptr;
}

void SetLink(NetworkBlock* block, int state) {
    block->state.store(state, std::memory_order_release);
}

bool RadioOn(const NetworkBlock* block) {
    return block->radio_off.load(std::memory_order_acquire) == 0 &&
           block->manager_off.load(std::memory_order_acquire) == 0;
}

// A blocking call takes the time the tests asked for.
void TakeTime(const NetworkBlock* block) {
    int delay = block->delay_ms.load(std::memory_order_acquire);
    if (delay > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
}

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool KeyAccepted(const AccessPoint& ap, const StoredCredentials& stored) {
    switch (ap.security) {
        case NET_SEC_OPEN:
            return true;
        case NET_SEC_WEP:
            return stored.key == ap.passphrase;
        case NET_SEC_EAP:
            return stored.password == ap.passphrase;
        default:
            break;
    }
    if (!stored.key.empty() && stored.key == ap.passphrase) return true;
    std::unique_ptr<char, decltype(&std::free)> psk(
        wpa_passphrase(ap.essid.c_str(), ap.passphrase.c_str(), 0), &std::free);
    return psk && Lower(stored.key) == psk.get();
}

// What the air says of a connect to the stored network `essid`.
int NaturalOutcome(const std::optional<Air>& air, const std::string& essid) {
    if (!air) return NET_OK;
    const AccessPoint* ap = FindAccessPoint(*air, essid);
    if (!ap) return NET_ERR_NOT_FOUND;
    std::optional<StoredCredentials> stored = FindStoredNetwork(essid);
    if (!stored) return NET_ERR_FAILED;
    return KeyAccepted(*ap, *stored) ? int{NET_OK} : int{NET_ERR_AUTH};
}

int Outcome(const NetworkBlock* block, const std::optional<Air>& air, const std::string& essid) {
    switch (block->outcome.load(std::memory_order_acquire)) {
        case QVHOST_WIFI_OK:
            return NET_OK;
        case QVHOST_WIFI_NO_NETWORK:
            return NET_ERR_NOT_FOUND;
        case QVHOST_WIFI_WRONG_KEY:
            return NET_ERR_AUTH;
        case QVHOST_WIFI_TIMEOUT:
            return NET_ERR_TIMEOUT;
        default:
            return NaturalOutcome(air, essid);
    }
}

// The network the device would choose itself: the last one used while it is stored and in reach,
// else the stored network in reach with the best signal. Empty when there is none.
std::string ChooseNetwork(const std::optional<Air>& air) {
    std::vector<std::string> stored = StoredNetworkNames();
    std::string last = CurrentNetworkName();
    bool last_stored = std::find(stored.begin(), stored.end(), last) != stored.end();
    if (!air) return last_stored ? last : (stored.empty() ? std::string() : stored.front());
    if (last_stored && FindAccessPoint(*air, last)) return last;
    std::string best;
    int best_quality = -1;
    for (const std::string& name : stored) {
        const AccessPoint* ap = FindAccessPoint(*air, name);
        if (ap && ap->quality > best_quality) {
            best = name;
            best_quality = ap->quality;
        }
    }
    return best;
}

int Connect(const char* name) {
    NetworkBlock* block = SharedNetworkBlock();
    if (!block) return NET_ERR_FAILED;
    block->connect_calls.fetch_add(1, std::memory_order_relaxed);
    if (block->unreachable.load(std::memory_order_acquire) != 0) return NET_ERR_FAILED;
    if (!RadioOn(block)) return NET_ERR_RADIO_OFF;
    std::optional<Air> air = LoadAir();
    std::string target;
    if (name && *name) {
        if (!FindStoredNetwork(name)) return NET_ERR_FAILED;
        target = name;
    } else {
        target = ChooseNetwork(air);
        if (target.empty()) {
            if (air) return NET_ERR_NOT_FOUND;
            SetLink(block, NET_STATE_CONNECTED);  // the host's own link
            return NET_OK;
        }
    }
    SetLink(block, NET_STATE_CONNECTING);
    TakeTime(block);
    int status = Outcome(block, air, target);
    if (status == NET_OK) MakeCurrentNetwork(target);
    SetLink(block, status == NET_OK ? int{NET_STATE_CONNECTED} : int{NET_STATE_OFF});
    return status;
}

void PutRecord(apinfo_s* record, const AccessPoint& ap) {
    std::memset(record, 0, sizeof *record);
    std::snprintf(record->essid, sizeof record->essid, "%s", ap.essid.c_str());
    record->security = ap.security;
    record->order_value_0 = ap.quality;
    record->order_value_1 = ap.level;
    record->extra_value = ap.channel;
}

// In the default air the stored networks are in reach, heard with a fair signal.
Air DefaultAir() {
    Air air;
    for (const std::string& name : StoredNetworkNames()) {
        std::optional<StoredCredentials> stored = FindStoredNetwork(name);
        AccessPoint ap;
        ap.essid = name;
        ap.security = stored ? stored->security : NET_SEC_OPEN;
        ap.quality = 60;
        ap.level = -60;
        ap.channel = 6;
        air.push_back(ap);
    }
    return air;
}

// What the radio hears: broadcast networks, and hidden ones it asks for because they are stored.
Air Heard() {
    std::optional<Air> air = LoadAir();
    if (!air) return DefaultAir();
    std::vector<std::string> stored = StoredNetworkNames();
    Air heard;
    for (const AccessPoint& ap : *air) {
        if (!ap.hidden || std::find(stored.begin(), stored.end(), ap.essid) != stored.end()) {
            heard.push_back(ap);
        }
    }
    return heard;
}

// The thread of NetConnectAsync: started by the first call and kept for the life of the process
// (never destroyed), it runs the connects one after the other, as the radio makes one at a time.
// A process that exits waits for the connects it started: the service's state lives in static
// objects, which exit destroys, and a connect cut off halfway would leave the shared link state
// "connecting" for every process.
class ConnectWorker {
public:
    static ConnectWorker& Instance() {
        static ConnectWorker* instance = new ConnectWorker;
        return *instance;
    }

    void Start(net_connect_done done) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!thread_started_) {
            // What a connect uses is made first, so that the wait registered after it runs
            // before exit destroys any of it.
            SharedNetworkBlock();
            CurrentNetworkName();
            std::atexit(&ConnectWorker::WaitAtExit);
            std::thread(&ConnectWorker::Work, this).detach();
            thread_started_ = true;
        }
        pending_.push_back(done);
        ++outstanding_;
        wake_.notify_one();
    }

private:
    static void WaitAtExit() {
        ConnectWorker& worker = Instance();
        std::unique_lock<std::mutex> lock(worker.mutex_);
        worker.idle_.wait(lock, [&worker] { return worker.outstanding_ == 0; });
    }

    void Work() {
        for (;;) {
            net_connect_done done = nullptr;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [this] { return !pending_.empty(); });
                done = pending_.front();
                pending_.pop_front();
            }
            int status = Connect(nullptr);
            if (done) done(status);
            std::lock_guard<std::mutex> lock(mutex_);
            --outstanding_;
            idle_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<net_connect_done> pending_;
    int outstanding_ = 0;
    bool thread_started_ = false;
};

}  // namespace
}  // namespace qvhost

extern "C" {

int NetConnectAsync(net_connect_done done, int /*flags*/) {
    try {
        qvhost::ConnectWorker::Instance().Start(done);
    } catch (const std::system_error&) {
        return NET_ERR_FAILED;
    }
    return NET_OK;
}

int NetConnect2(const char* network_name, int /*flags*/) {
    return qvhost::Connect(network_name);
}

int NetSelect_by_ssid(const char* essid) {
    if (!essid || !*essid) return NET_ERR_FAILED;
    return qvhost::Connect(essid);
}

void* GetWiFiScanResults(int /*flags*/) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block || !qvhost::RadioOn(block)) return nullptr;
    qvhost::Air heard = qvhost::Heard();
    int32_t count = static_cast<int32_t>(heard.size());
    auto* result =
        static_cast<char*>(std::calloc(1, sizeof count + heard.size() * sizeof(apinfo_s)));
    if (!result) return nullptr;
    std::memcpy(result, &count, sizeof count);
    auto* records = reinterpret_cast<apinfo_s*>(result + sizeof count);
    for (size_t i = 0; i < heard.size(); ++i)
        qvhost::PutRecord(&records[i], heard[i]);
    return result;
}

int NetDelete_by_ssid(const char* essid) {
    if (!essid || !qvhost::ForgetStoredNetwork(essid)) return NET_ERR_FAILED;
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (block && qvhost::CurrentNetworkName() == essid) qvhost::SetLink(block, NET_STATE_OFF);
    return NET_OK;
}

int NetDisconnect(void) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block) return NET_ERR_FAILED;
    qvhost::SetLink(block, NET_STATE_OFF);
    return NET_OK;
}

int NetMgr(int on) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block) return NET_ERR_FAILED;
    qvhost::TakeTime(block);
    block->manager_off.store(on ? 0 : 1, std::memory_order_release);
    if (!on) qvhost::SetLink(block, NET_STATE_OFF);
    return NET_OK;
}

int NetMgrStatus(void) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block) return -1;
    return block->manager_off.load(std::memory_order_acquire) == 0 ? 1 : 0;
}

int NetMgrPing(void) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block || block->manager_off.load(std::memory_order_acquire) != 0) {
        return NET_ERR_RADIO_OFF;
    }
    block->last_ping.store(static_cast<int64_t>(std::time(nullptr)), std::memory_order_release);
    return NET_OK;
}

int WiFiPower(int value) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block) return NET_ERR_FAILED;
    if (value < -1) return block->radio_off.load(std::memory_order_acquire) == 0 ? 1 : 0;
    block->radio_off.store(value > 0 ? 0 : 1, std::memory_order_release);
    if (value <= 0) qvhost::SetLink(block, NET_STATE_OFF);
    return NET_OK;
}

int qvhost_wifi_set_air(const qvhost_wifi_ap* aps, int count) {
    if (count < 0) return qvhost::SaveAir(std::nullopt) ? 0 : -1;
    if (!aps && count > 0) return -1;
    qvhost::Air air;
    for (int i = 0; i < count; ++i) {
        const qvhost_wifi_ap& ap = aps[i];
        if (!qvhost::UsableEssid(ap.essid) || !qvhost::UsablePassphrase(ap.passphrase)) return -1;
        air.push_back({ap.essid, ap.security, ap.passphrase ? ap.passphrase : "", ap.quality,
                       ap.level, ap.channel, ap.hidden != 0});
    }
    return qvhost::SaveAir(air) ? 0 : -1;
}

int qvhost_wifi_air(qvhost_wifi_ap* out, int capacity) {
    thread_local qvhost::Air kept;
    std::optional<qvhost::Air> air = qvhost::LoadAir();
    if (!air) return -1;
    kept = std::move(*air);
    int count = static_cast<int>(kept.size());
    for (int i = 0; i < count && i < capacity && out; ++i) {
        const qvhost::AccessPoint& ap = kept[static_cast<size_t>(i)];
        out[i] = {ap.essid.c_str(), ap.security, ap.passphrase.c_str(), ap.quality,
                  ap.level,         ap.channel,  ap.hidden ? 1 : 0};
    }
    return count;
}

void qvhost_wifi_set_behaviour(int delay_ms, int outcome) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    if (!block) return;
    block->delay_ms.store(delay_ms < 0 ? 0 : delay_ms, std::memory_order_release);
    block->outcome.store(outcome, std::memory_order_release);
}

int qvhost_wifi_delay(void) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    return block ? block->delay_ms.load(std::memory_order_acquire) : 0;
}

int qvhost_wifi_outcome(void) {
    qvhost::NetworkBlock* block = qvhost::SharedNetworkBlock();
    return block ? block->outcome.load(std::memory_order_acquire) : QVHOST_WIFI_NATURAL;
}

}  // extern "C"
