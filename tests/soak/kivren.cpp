#include "tests/soak/kivren.h"

#include <cstring>

#include "tests/soak/faults.h"

namespace soak
{

static void take_removal(Kivren *kivren, const std::string &bytes)
{
    const std::string address = bytes.substr(sizeof(ipc_msg_hdr));
    kivren->removals++;
    if (end_of_address(address) == FOLLOW_STATION) {
        kivren->checks->take_removal(number_of_address(address));
    } else {
        kivren->ledger->take_removal(number_of_address(address));
    }
}

static void take_message(Kivren *kivren, const std::string &bytes)
{
    ipc_msg_hdr header = {};
    std::memcpy(&header, bytes.data(), std::min(sizeof header, bytes.size()));
    const bool is_whole =
        bytes.size() == sizeof header + header.len && header.src_module == PELKIN_MODULE_ID;
    if (is_whole && header.msg_id == PELKIN_MSG_REAUTH_RESP) {
        kivren->reports++;
        kivren->ledger->take_report(bytes);
    } else if (is_whole && header.msg_id == KIVREN_MSG_DEL_STA_REQ &&
               header.len == PELKIN_MAC_SIZE) {
        take_removal(kivren, bytes);
    } else {
        report_fault("kivren got what is no message: " + std::to_string(bytes.size()) + " bytes");
    }
}

// What was there is read before what is missing is asked about.
static void read_messages(Kivren *kivren)
{
    const std::vector<uint32_t> untold = kivren->ledger->list_untold(-1);
    const std::vector<uint32_t> freed = kivren->checks->list_freed();
    kivren->seat.drain([kivren](const std::string &bytes) { take_message(kivren, bytes); });
    kivren->ledger->settle_untold(untold);
    kivren->checks->settle_freed(freed);
}

static void change(Kivren *kivren)
{
    const double seconds = 1 + (double)(kivren->random() % 5);
    if (kivren->seat.socket == nullptr) {
        kivren->seat.take();
    }
    kivren->is_deaf = false;
    kivren->changes_at = now_s() + 4 * seconds;
    if (kivren->is_calm) {
        return;
    }
    if (kivren->random() % 3 == 0) {
        kivren->is_deaf = true;
        kivren->changes_at = now_s() + seconds;
    } else if (kivren->random() % 2 == 0) {
        kivren->seat.leave([kivren](const std::string &bytes) { take_message(kivren, bytes); },
                           kivren->random() % 2 == 0);
        kivren->restarts++;
        kivren->changes_at = now_s() + seconds;
    }
}

static void run(Kivren *kivren)
{
    while (!kivren->is_ending) {
        if (now_s() > kivren->changes_at || kivren->is_calm) {
            change(kivren);
        }
        if (!kivren->is_deaf) {
            read_messages(kivren);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

Kivren::Kivren(Ledger *with_ledger, FollowChecks *with_checks)
    : ledger(with_ledger), checks(with_checks), seat(KIVREN_SOCKET_PATH), random(support::seed())
{
    seat.take();
    thread = std::thread(run, this);
}

Kivren::~Kivren()
{
    is_ending = true;
    thread.join();
}

} // namespace soak
