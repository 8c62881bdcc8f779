#include "common_utilities/shell_calls.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

namespace quorvel {
namespace utilities {

namespace {

constexpr unsigned kClaimRetryUs = 125000;
constexpr unsigned kAnswerPollUs = 20000;
constexpr unsigned kMessageLingerUs = 200000;

int32_t Load(const int32_t* field) {
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

void Store(int32_t* field, int32_t value) {
    __atomic_store_n(field, value, __ATOMIC_RELEASE);
}

// A body: the integers in the machine's order, then the strings with their terminators.
std::vector<unsigned char> PackBody(std::initializer_list<int32_t> numbers,
                                    std::initializer_list<const std::string*> texts) {
    std::vector<unsigned char> body(numbers.size() * sizeof(int32_t));
    size_t pos = 0;
    for (int32_t n : numbers) {
        std::memcpy(&body[pos], &n, sizeof n);
        pos += sizeof n;
    }
    for (const std::string* text : texts) {
        body.insert(body.end(), text->begin(), text->end());
        body.push_back('\0');
    }
    return body;
}

int32_t Length(const std::string& text) {
    return static_cast<int32_t>(text.size() + 1);
}

// Takes the mailbox for `query`: the compare-and-swap from free makes two applications that find
// it free at the same moment take turns instead of writing one body over the other.
bool TryClaim(int32_t query) {
    int32_t expected = MG_UIQUERY_FREE;
    return __atomic_compare_exchange_n(&mgmpc->uiquery, &expected, query, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_ACQUIRE);
}

// A body larger than the mailbox is refused rather than written past its end.
bool Post(const std::vector<unsigned char>& body) {
    if (body.size() > sizeof mgmpc->uibody) {
        QV_LOG_ERROR("request body of %zu bytes does not fit the mailbox", body.size());
        return false;
    }
    std::memcpy(mgmpc->uibody, body.data(), body.size());
    Store(&mgmpc->uistatus, MG_UISTATUS_PENDING);
    return true;
}

// The shell is busy with the request while it is pending or being shown.
bool InProgress() {
    int32_t status = Load(&mgmpc->uistatus);
    return status == MG_UISTATUS_PENDING || status == MG_UISTATUS_SHOWN;
}

void ClaimQuietly(int32_t query) {
    while (!TryClaim(query))
        usleep(kAnswerPollUs);
}

// Posts a request that the shell answers, waits for the answer, frees the mailbox.
int32_t Ask(int32_t query, const std::vector<unsigned char>& body) {
    ClaimQuietly(query);
    if (!Post(body)) {
        Store(&mgmpc->uiquery, MG_UIQUERY_FREE);
        return -1;
    }
    while (InProgress())
        usleep(kAnswerPollUs);
    int32_t answer = Load(&mgmpc->uistatus);
    Store(&mgmpc->uiquery, MG_UIQUERY_FREE);
    return answer;
}

}  // namespace

void SystemMessage(int icon, const std::string& title, const std::string& text, int timeout) {
    QV_LOG_INFO("SystemMessage icon [%d] title [%s] text [%s], timeout [%d]", icon, title.c_str(),
                text.c_str(), timeout);
    QV_RETURN_VOID_IF(!mgmpc, "mgmpc == NULL");
    while (!TryClaim(MG_UIQUERY_MESSAGE)) {
        QV_LOG_INFO("mgmpc->uiquery [%d]", Load(&mgmpc->uiquery));
        usleep(kClaimRetryUs);
    }
    if (!Post(PackBody({icon, Length(title), Length(text), timeout}, {&title, &text}))) {
        Store(&mgmpc->uiquery, MG_UIQUERY_FREE);
        return;
    }
    while (Load(&mgmpc->uistatus) != MG_UISTATUS_SHOWN)
        usleep(kAnswerPollUs);
    usleep(kMessageLingerUs);
    Store(&mgmpc->uiquery, MG_UIQUERY_FREE);
}

int SystemDialog(int icon, const std::string& title, const std::string& text,
                 const std::string& button1, const std::string& button2) {
    QV_LOG_INFO("SystemDialog icon [%d] title [%s] text [%s] button1 [%s] button2 [%s]", icon,
                title.c_str(), text.c_str(), button1.c_str(), button2.c_str());
    QV_RETURN_IF(!mgmpc, -1, "mgmpc == NULL");
    auto body = PackBody({icon, Length(title), Length(text), Length(button1), Length(button2)},
                         {&title, &text, &button1, &button2});
    int32_t answer = Ask(MG_UIQUERY_DIALOG, body);
    QV_LOG_INFO("mgmpc->uistatus [%d]", answer);
    return answer;
}

void SystemOpenBook(const std::string& path) {
    QV_RETURN_VOID_IF(!mgmpc, "mgmpc == NULL");
    int32_t answer = Ask(MG_UIQUERY_OPENBOOK, PackBody({Length(path)}, {&path}));
    QV_LOG_INFO("mgmpc->uistatus [%d]", answer);
}

}  // namespace utilities
}  // namespace quorvel
