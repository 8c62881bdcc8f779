// qvtool card ...: the host's memory card slot. On the host the card is a setting of the device
// profile that every process of the sandbox sees; its files live under /mnt/ext2 all the same.

#include <iostream>
#include <string>

#include "boardprofile.h"
#include "cli.h"
#include "moorglass_host.h"

namespace qvtool {
namespace {

int RunInsert(Args& args) {
    std::string serial = args.Next("SERIAL");
    args.Done();
    if (serial.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw Failure(kUsage, "a serial number is hexadecimal: " + serial);
    qvhost_set_card_serial(serial.c_str());
    qvhost_set_card_inserted(1);
    std::cout << "card " << serial << " in the slot\n";
    return kOk;
}

int RunRemove(Args& args) {
    args.Done();
    qvhost_set_card_inserted(0);
    std::cout << "the slot is empty\n";
    return kOk;
}

int RunShow(Args& args) {
    args.Done();
    if (!IsSDinserted()) {
        std::cout << "the slot is empty\n";
        return kOk;
    }
    const char* serial = GetExternalCardSerialNumber();
    std::cout << "card " << (serial ? serial : "(serial number unreadable)") << " in the slot\n";
    return kOk;
}

const bool registered_insert = Register(
    {"card insert", "put a memory card with this serial number in the slot (host only)",
     "usage: qvtool card insert SERIAL\n"
     "Puts a card in the host's slot, reporting the hexadecimal SERIAL. Its files are those under\n"
     "/mnt/ext2; the media library keeps the tracks of each card apart by its serial number.\n",
     RunInsert});

const bool registered_remove = Register({"card remove", "take the memory card out (host only)",
                                         "usage: qvtool card remove\n"
                                         "Takes the card out of the host's slot; /mnt/ext2 stays "
                                         "as it is.\n",
                                         RunRemove});

const bool registered_show = Register({"card show", "whether a card is in the slot, and which",
                                       "usage: qvtool card show\n", RunShow});

}  // namespace
}  // namespace qvtool
