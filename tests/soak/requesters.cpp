#include "tests/soak/requesters.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/soak/faults.h"

namespace soak
{

static const double RATE = 200;                // datagrams a second at most
static const size_t OUTSTANDING_MAX = 20;      // of a requester
static const size_t ROAD_OUTSTANDING_MAX = 30; // of a fickle server: its worker has 100 slots
static const size_t BURST = 230;               // requests to a slow server at once
static const double BURST_PERIOD_S = 20;
static const size_t BURSTING = 0; // the requester that asks the slow servers, and none else does
static const double FOR_GOOD_S = 1e9;

static bool is_accepted(bool sent)
{
    if (!sent && errno != EAGAIN) {
        report_fault(std::string("the daemon takes no requests: ") + std::strerror(errno));
    }
    return sent;
}

// False when the daemon has no room for more at the moment.
static bool send_request(Requesters *all, size_t requester, size_t target)
{
    const Plan plan = plan_request(all->next++, target);
    if (!all->ledger->open(plan, (int)requester)) {
        return true;
    }
    if (!is_accepted(all->modules[requester].seat.send(datagram_of(plan)))) {
        all->ledger->withdraw(plan.number);
        return false;
    }
    return true;
}

static bool send_mismatched(Requesters *all, const Seat &seat)
{
    std::string bytes = datagram_of(plan_request(FIRST_REQUEST - 1, 0));
    // The daemon receives no more than the largest message, and so sees no longer one.
    const bool is_longer = all->random() % 2 == 0 && bytes.size() < PELKIN_MSG_MAX;
    bytes.resize(is_longer ? bytes.size() + 1 : 1 + all->random() % (bytes.size() - 1));
    // Counted first: the daemon's message may be quicker.
    all->malformed.mismatched++;
    if (!is_accepted(seat.send(bytes))) {
        all->malformed.mismatched--;
        return false;
    }
    return true;
}

static bool send_counted(const Seat &seat, std::atomic<uint64_t> &count, uint32_t msg_id,
                         size_t size)
{
    count++;
    if (!is_accepted(seat.send(support::message(msg_id, std::string(size, 'x'))))) {
        count--;
        return false;
    }
    return true;
}

static bool send_follow_check(Requesters *all, const Seat &seat)
{
    if (!is_accepted(seat.send(all->checks->register_client()))) {
        all->checks->withdraw_client();
        return false;
    }
    return true;
}

// Anything but a request for a server.
static bool send_aside(Requesters *all, const Seat &seat)
{
    const uint32_t one = (uint32_t)all->random() % 100;
    if (one < 50) {
        return send_follow_check(all, seat);
    }
    if (one < 80) {
        return send_mismatched(all, seat);
    }
    if (one < 90) {
        return send_counted(seat, all->malformed.short_check, PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ,
                            all->random() % 300);
    }
    return send_counted(seat, all->malformed.replies, KIVREN_MSG_DEL_STA_RESP,
                        all->random() % 1000);
}

static size_t outstanding_at(Ledger *ledger, size_t target)
{
    const std::lock_guard<std::mutex> lock(ledger->guard);
    return ledger->roads[target].outstanding;
}

static size_t outstanding_of(Ledger *ledger, size_t requester)
{
    const std::lock_guard<std::mutex> lock(ledger->guard);
    return ledger->requester_outstanding[requester];
}

// One datagram of a requester that has not too much outstanding, to a server that has not either.
static bool send_one(Requesters *all)
{
    const size_t requester = 1 + all->random() % (REQUESTERS - 1);
    const Module &module = all->modules[requester];
    if (module.mood == Mood::GONE || outstanding_of(all->ledger, requester) >= OUTSTANDING_MAX) {
        return true;
    }
    if (all->random() % 100 < 4) {
        return send_aside(all, module.seat);
    }
    const size_t target = all->random() % targets().size();
    const bool is_slow = targets()[target].temper == Temper::SLOW;
    // Every worker of an absent server is a thread that comes and goes.
    const bool is_passed_over = targets()[target].temper == Temper::ABSENT && all->random() % 4 > 0;
    if (is_slow || is_passed_over || outstanding_at(all->ledger, target) >= ROAD_OUTSTANDING_MAX) {
        return true;
    }
    return send_request(all, requester, target);
}

// More at once than one worker has slots for.
static void send_burst(Requesters *all)
{
    if (now_s() < all->next_burst_at || outstanding_of(all->ledger, BURSTING) > 0) {
        return;
    }
    all->next_burst_at = now_s() + BURST_PERIOD_S;
    std::vector<size_t> slow;
    for (size_t i = 0; i < targets().size(); i++) {
        if (targets()[i].temper == Temper::SLOW) {
            slow.push_back(i);
        }
    }
    const size_t target = slow[all->random() % slow.size()];
    for (size_t sent = 0; sent < BURST && fault_count() == 0;) {
        if (send_request(all, BURSTING, target)) {
            sent++;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

// What was there is read before what is missing is asked about.
static void read_answers(Requesters *all, size_t requester)
{
    const std::vector<uint32_t> untold = all->ledger->list_untold((int)requester);
    all->modules[requester].seat.drain([all, requester](const std::string &bytes) {
        all->ledger->take_answer((int)requester, bytes);
    });
    all->ledger->settle_untold(untold);
}

static void change_mood(Requesters *all, size_t requester)
{
    Module &module = all->modules[requester];
    if (module.mood == Mood::GONE) {
        module.seat.take();
    }
    const uint32_t one = (uint32_t)all->random() % 100;
    const double seconds = 1 + (double)(all->random() % 20);
    module.mood = Mood::READING;
    module.mood_ends_at = now_s() + 2 * seconds;
    if (requester == BURSTING || !all->is_loading) {
        return;
    }
    if (one < 10) {
        module.mood = Mood::DEAF;
        module.mood_ends_at = now_s() + (requester == 1 ? FOR_GOOD_S : seconds);
    } else if (one < 20) {
        module.mood = Mood::GONE;
        module.mood_ends_at = now_s() + seconds / 4;
        module.seat.leave(
            [all, requester](const std::string &bytes) {
                all->ledger->take_answer((int)requester, bytes);
            },
            one < 15);
    }
}

static void send_load(Requesters *all)
{
    // What could not be sent is not made up for later.
    all->sent_up_to = std::max(all->sent_up_to, now_s() - 0.1);
    while (all->sent_up_to < now_s()) {
        all->sent_up_to += 1 / RATE;
        if (!send_one(all)) {
            return;
        }
    }
    send_burst(all);
}

static void run(Requesters *all)
{
    while (!all->is_ending) {
        for (size_t i = 0; i < REQUESTERS; i++) {
            const Module &module = all->modules[i];
            const bool wakes = !all->is_loading && module.mood != Mood::READING;
            if (wakes || now_s() > module.mood_ends_at) {
                change_mood(all, i);
            }
            if (module.mood != Mood::DEAF) {
                read_answers(all, i);
            }
        }
        if (all->is_loading) {
            send_load(all);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

Requesters::Requesters(Ledger *with_ledger, FollowChecks *with_checks)
    : ledger(with_ledger), checks(with_checks), random(support::seed())
{
    for (size_t i = 0; i < REQUESTERS; i++) {
        modules.push_back({Seat("/tmp/module-" + std::to_string(i))});
        modules.back().seat.take();
    }
    thread = std::thread(run, this);
}

void Requesters::end_load()
{
    is_loading = false;
}

Requesters::~Requesters()
{
    is_ending = true;
    thread.join();
}

} // namespace soak
