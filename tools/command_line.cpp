#include "tools/command_line.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tools/check_follow.h"
#include "tools/exit_status.h"
#include "tools/http_command.h"
#include "tools/log_view.h"
#include "tools/output.h"
#include "tools/probe.h"
#include "tools/social_commands.h"
#include "tools/stations.h"
#include "tools/status.h"
#include "tools/steer.h"
#include "tools/top.h"

// The command that the arguments name, to be run once all of them have been read.
using command = std::function<int()>;

static const char DESCRIPTION[] =
    "pelkinctl: ask, watch and steer pelkin, the HTTP daemon of the wireless-LAN controller.\n"
    "Answers and data go to standard output, everything else to standard error.";
static const char FOOTER[] =
    "Exit status: 0 answered or done, 1 wrong usage (or standard output or a file failed),\n"
    "2 the daemon cannot be reached, 3 no answer in time, 4 the daemon could not do it.\n"
    "'pelkinctl COMMAND --help' tells more about a command, pelkinctl(1) everything.";

// What an option takes: the name that help shows, and a description for a complaint.
struct value_kind {
    const char *type;
    const char *description;
};
static const value_kind SECONDS = {"SECONDS", "a number of seconds, above 0 and at most 86400"};
static const value_kind STATION_ADDRESS = {"MAC", "an address like 02:00:00:00:00:01"};
static const value_kind MESSAGE_ID = {"ID", "a 32-bit number, decimal or 0x..."};
static const value_kind TAG = {"N", "a number from 0 to 65535"};
static const value_kind PARALLEL = {"N", "a number from 1 to 32"};
static const value_kind ON_OFF = {"on|off", "on or off"};
static const value_kind LEVEL = {
    "LEVEL", "0 to 7, or emerg, alert, crit, err, warning, notice, info, debug"};

// An option whose text goes through `parse`, which returns false for what it does not take.
template <typename Value>
static CLI::Option *add_parsed(CLI::App *app, const std::string &name, Value *value,
                               bool (*parse)(const std::string &, Value *), const value_kind &kind,
                               const std::string &help)
{
    return app
        ->add_option_function<std::string>(
            name,
            [=](const std::string &text) {
                if (!parse(text, value)) {
                    throw CLI::ValidationError(name, "'" + text + "' is not " + kind.description);
                }
            },
            help)
        ->type_name(kind.type);
}

static void add_socket(CLI::App *app, std::string *socket, const char *help)
{
    app->add_option("--socket", *socket, help)->type_name("PATH")->capture_default_str();
}

static void add_delivery(CLI::App *app, delivery *to, const char *timeout_help)
{
    add_parsed(app, "--timeout", &to->timeout_s, parse_seconds, SECONDS, timeout_help);
    add_socket(app, &to->socket, "The daemon's request socket");
}

static void add_url(CLI::App *app, std::string *url)
{
    app->add_option("URL", *url,
                    "https://HOST/PATH, http://HOST/PATH or HOST/PATH; at most 255 characters")
        ->required()
        ->check(CLI::Validator(url_fault, ""))
        ->type_name("");
}

static bool parse_request_id(const std::string &text, uint32_t *msg_id)
{
    if (!parse_uint32(text, msg_id)) {
        return false;
    }
    const std::string fault = request_id_fault(*msg_id);
    if (!fault.empty()) {
        throw CLI::ValidationError("--msg-id", fault);
    }
    return true;
}

// The daemon stands elsewhere: what is meant from here is made absolute.
static std::string absolute_path(const std::string &path)
{
    return path.empty() ? path : std::filesystem::absolute(path).string();
}

static void add_answer_options(CLI::App *app, const std::shared_ptr<http_command> &given)
{
    CLI::Option *file = app->add_option_function<std::string>(
        "--file",
        [given](const std::string &path) {
            given->request.file_path = absolute_path(path);
            given->request.resp_method = PELKIN_RESP_FILE;
            const std::string fault = file_path_fault(given->request.file_path);
            if (!fault.empty()) {
                throw CLI::ValidationError("--file", fault);
            }
        },
        "Have the daemon write the answer to this file instead. Nothing comes back then: the exit "
        "status is 0 once the request has been handed over");
    file->type_name("PATH");
    app->add_flag_callback(
           "--analyse", [given] { given->request.resp_method = PELKIN_RESP_ANALYSE; },
           "Have the daemon analyse the answer and tell the station manager, as the message id "
           "says. Nothing comes back then, as with --file")
        ->excludes(file);
}

// The text of --data, wherever it comes from. A query is a line: a file's line break ends it.
static CLI::Option *add_data(CLI::App *app, std::string *text, const bool *is_body,
                             const std::string &help)
{
    return app
        ->add_option_function<std::string>(
            "--data",
            [=](const std::string &given) {
                std::string fault = read_data(given, text);
                if (fault.empty() && !*is_body && given != *text && !text->empty() &&
                    text->back() == '\n') {
                    text->pop_back();
                }
                if (fault.empty()) {
                    fault = *is_body ? body_fault(*text) : query_fault(*text);
                }
                if (!fault.empty()) {
                    throw CLI::ValidationError("--data", fault);
                }
            },
            help + "; @FILE takes a file's content, - standard input's")
        ->type_name("TEXT");
}

// Replaces "-" by the lines of standard input.
static void read_urls(std::vector<std::string> *urls)
{
    if (urls->size() == 1 && urls->front() == "-") {
        std::vector<numbered_line> lines;
        if (!read_lines("-", &lines)) {
            throw CLI::ValidationError("URL", "standard input cannot be read as a list");
        }
        urls->clear();
        for (const numbered_line &line : lines) {
            urls->push_back(line.text);
        }
    }
    for (const std::string &url : *urls) {
        const std::string fault = url_fault(url);
        if (!fault.empty()) {
            throw CLI::ValidationError("URL '" + url + "'", fault);
        }
    }
    if (urls->empty()) {
        throw CLI::ValidationError("URL", "standard input holds none");
    }
}

static bool parse_parallel(const std::string &text, size_t *number)
{
    uint32_t value = 0;
    const bool is_good = parse_uint32(text, &value) && value >= 1 && value <= PARALLEL_MAX;
    *number = value;
    return is_good;
}

static void add_http(CLI::App &app, const char *name, const char *help, uint32_t http_req_type,
                     command *chosen)
{
    static const bool IS_BODY[] = {false, true};
    const bool is_post = http_req_type == PELKIN_HTTP_POST;
    auto given = std::make_shared<http_command>();
    given->request.http_req_type = http_req_type;
    CLI::App *sub = app.add_subcommand(name, help);
    sub->add_option("URL", given->urls,
                    "https://HOST/PATH, http://HOST/PATH or HOST/PATH, at most 255 characters. "
                    "Several have one answer each, in their order; - reads them from standard "
                    "input, one a line")
        ->required()
        ->type_name("");
    add_data(sub, &given->text, &IS_BODY[is_post],
             is_post ? "Body of the request, at most 1024 bytes"
                     : "Query, without its '?': at most 1024 bytes, URL-encoded")
        ->required(is_post);
    add_parsed(sub, "--parallel", &given->parallel, parse_parallel, PARALLEL,
               "So many URLs at once, at most 32 [1]");
    add_answer_options(sub, given);
    add_parsed(sub, "--msg-id", &given->request.msg_id, parse_request_id, MESSAGE_ID,
               "Message id, decimal or 0x... [0x15000001]");
    add_parsed(sub, "--mac", &given->mac, parse_mac, STATION_ADDRESS,
               "Station address that goes with the data, for analyses [00:00:00:00:00:00]");
    add_delivery(sub, &given->to, "How long to wait for each answer [30]");
    sub->final_callback([=] {
        const std::vector<std::string> input = {"-"};
        if (given->urls == input && sub->get_option("--data")->results() == input) {
            throw CLI::ValidationError("--data", "standard input holds the URLs already");
        }
        read_urls(&given->urls);
        if (given->urls.size() > 1 && !given->request.file_path.empty()) {
            throw CLI::ValidationError("--file", "it takes one URL, since it is one file");
        }
        *chosen = [given] { return run_http(*given); };
    });
}

static void add_json(CLI::App *app, bool *json)
{
    app->add_flag("--json", *json, "Print JSON, an object a line");
}

static void add_for(CLI::App *app, double *for_s)
{
    add_parsed(app, "--for", for_s, parse_seconds, SECONDS, "End after this time");
}

static bool parse_level_option(const std::string &text, int32_t *level)
{
    *level = parse_level(text);
    return *level >= 0;
}

static void add_log(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<log_command>();
    CLI::App *sub = app.add_subcommand("log", "Show the daemon's log live");
    add_parsed(
        sub, "--level", &given->level, parse_level_option, LEVEL,
        "Only what is at least as important as this; pelkin itself logs up to its own level");
    sub->add_option("--grep", given->pattern,
                    "Only what matches this extended regular expression, function name included")
        ->type_name("REGEX")
        ->check(CLI::Validator(pattern_fault, ""));
    add_json(sub, &given->json);
    add_for(sub, &given->for_s);
    sub->add_flag("--count", given->count, "Print only the number of records, at the end");
    sub->footer("Takes the place of the log service at /tmp/ttylog.msg while none runs, until it "
                "is\ninterrupted; the exit status is then 0, or 2 when the place was taken. A "
                "daemon that\nruns already shows with its next message. Its messages also go to "
                "the system log, always.");
    sub->final_callback([=] { *chosen = [given] { return run_log(*given); }; });
}

static std::shared_ptr<probe_command> add_probing(CLI::App *app, const char *timeout_help)
{
    auto given = std::make_shared<probe_command>();
    add_parsed(app, "--timeout", &given->timeout_s, parse_seconds, SECONDS, timeout_help);
    add_socket(app, &given->socket, "The daemon's monitor socket");
    add_json(app, &given->json);
    return given;
}

static void add_probe(CLI::App &app, command *chosen)
{
    CLI::App *sub = app.add_subcommand("probe", "Ask the daemon whether it is alive, as the system "
                                                "monitor does");
    const auto given = add_probing(sub, "How long to wait for the answer [2]");
    sub->final_callback([=] { *chosen = [given] { return run_probe(*given); }; });
}

static void add_wait(CLI::App &app, command *chosen)
{
    CLI::App *sub = app.add_subcommand("wait", "Wait until the daemon answers a probe");
    const auto given = add_probing(sub, "How long to wait for it [30]");
    given->timeout_s = 30;
    sub->footer("For start scripts: the daemon need not be there yet. 2: it could not be reached "
                "in time,\n3: it could, but did not answer.");
    sub->final_callback([=] { *chosen = [given] { return run_wait(*given); }; });
}

static void add_status(CLI::App &app, command *chosen)
{
    CLI::App *sub =
        app.add_subcommand("status", "Show process, liveness, log level, switches and resources");
    const auto given = add_probing(sub, "How long to wait for a probe's answer [2]");
    sub->footer("Level and switches are those in force, read from the daemon's memory; where a "
                "file in /tmp\nsays something else, it is not yet read. The exit status is that of "
                "a probe.");
    sub->final_callback([=] { *chosen = [given] { return run_status(*given); }; });
}

static void add_workers(CLI::App &app, command *chosen)
{
    auto json = std::make_shared<bool>(false);
    CLI::App *sub = app.add_subcommand("workers", "Show the daemon's workers, one a server");
    add_json(sub, json.get());
    sub->final_callback([=] { *chosen = [json] { return run_workers(*json); }; });
}

static void add_top(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<top_command>();
    CLI::App *sub = app.add_subcommand("top", "Show the workers and what fails, again and again");
    add_parsed(sub, "--interval", &given->interval_s, parse_seconds, SECONDS,
               "Time from one view to the next [2]");
    add_for(sub, &given->for_s);
    add_json(sub, &given->json);
    sub->footer("Failures are counted by cause, as the log tells them from the start on, if no "
                "other program\nserves /tmp/ttylog.msg.");
    sub->final_callback([=] { *chosen = [given] { return run_top(*given); }; });
}

static void add_level(CLI::App &app, command *chosen)
{
    auto level = std::make_shared<int32_t>(-1);
    CLI::App *sub = app.add_subcommand(
        "level", "Set the least important level that is logged, or show the one in force");
    add_parsed(sub, "LEVEL", level.get(), parse_level_option, LEVEL, LEVEL.description);
    sub->footer("With a level: writes /tmp/pelkinLogLevel and sends SIGUSR1 to the daemon.");
    sub->final_callback(
        [=] { *chosen = [level] { return *level >= 0 ? run_level(*level) : run_show_level(); }; });
}

static bool parse_on_off(const std::string &text, std::optional<bool> *on)
{
    *on = text == "on";
    return text == "on" || text == "off";
}

static void add_ignore(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<ignore_command>();
    CLI::App *sub = app.add_subcommand("ignore", "Switch token verification off and on again");
    add_parsed(sub, "--verification", &given->verification, parse_on_off, ON_OFF,
               "Drop verification requests as they come (0x15000002, 0x15000004)");
    add_parsed(sub, "--result", &given->result, parse_on_off, ON_OFF,
               "Carry them out but ignore what the server answers");
    sub->require_option(1, 2);
    sub->footer("Makes or removes /tmp/ignore_fb_token_verification and "
                "/tmp/ignore_fb_token_verification_result,\nand sends SIGUSR2 to the daemon. What "
                "is not named stays as it is.");
    sub->final_callback([given, chosen] { *chosen = [given] { return run_ignore(*given); }; });
}

static void add_as_kivren(CLI::App *app, bool *as_kivren)
{
    app->add_flag("--as-kivren", *as_kivren,
                  "Serve the station manager's socket while nobody does, and print what the daemon "
                  "sends there");
}

static std::string secret_fault(const std::string &secret)
{
    return secret.size() < REAUTH_SECRET_SIZE ? "" : "the secret has more than 128 characters";
}

static void add_reauth(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<reauth_command>();
    CLI::App *sub =
        app.add_subcommand("reauth", "Have the login tokens of a batch of stations verified again");
    add_url(sub, &given->url);
    sub->add_option("--secret", given->secret, "Secret shared with the server")
        ->type_name("TEXT")
        ->required()
        ->check(CLI::Validator(secret_fault, ""));
    add_parsed(sub, "--tag", &given->tag, parse_uint16, TAG,
               "Number that comes back in the report, 0 to 65535")
        ->required();
    CLI::Option *station = sub->add_option_function<std::vector<std::string>>(
        "--station",
        [given](const std::vector<std::string> &texts) {
            for (const std::string &text : texts) {
                if (!parse_station(text, &given->stations.emplace_back())) {
                    throw CLI::ValidationError("--station",
                                               "'" + text +
                                                   "' is no MAC,TOKEN,INCOMING,OUTGOING with a "
                                                   "token of 1 to 64 characters");
                }
            }
        },
        "A station, its token and two counters; can be repeated");
    station->type_name("MAC,TOKEN,INCOMING,OUTGOING")->type_size(1)->expected(1, REAUTH_STA_MAX);
    sub->add_option("--stations", given->stations_file,
                    "File of stations, one a line; - is standard input")
        ->type_name("FILE")
        ->excludes(station);
    add_as_kivren(sub, &given->as_kivren);
    add_delivery(sub, &given->to, "How long to wait for the report, with --as-kivren [30]");
    sub->final_callback([given, chosen] { *chosen = [given] { return run_reauth(*given); }; });
}

static void add_fbauth(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<fbauth_command>();
    CLI::App *sub =
        app.add_subcommand("fbauth", "Have the login token of one station verified, and the "
                                     "station deleted when it is not valid");
    add_url(sub, &given->url);
    add_parsed(sub, "--mac", &given->mac, parse_mac, STATION_ADDRESS, "The station")->required();
    sub->add_flag("--post", given->post, "Send the data as the body of a POST instead");
    add_data(sub, &given->text, &given->post,
             "Query for the server, URL-encoded, at most 1024 bytes")
        ->required();
    add_as_kivren(sub, &given->as_kivren);
    add_delivery(sub, &given->to, "How long to wait for the verdict, with --as-kivren [30]");
    sub->footer("With --as-kivren it prints whether the daemon deletes the station or keeps it; "
                "4 means that\nthe server could not be asked or understood. Good tokens and "
                "failures are told by the log, if\nno other program serves /tmp/ttylog.msg.");
    sub->final_callback([given, chosen] { *chosen = [given] { return run_fbauth(*given); }; });
}

static void add_check_follow(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<follow_command>();
    CLI::App *sub = app.add_subcommand(
        "check-follow", "Have it checked whether WeChat clients follow the account they logged in "
                        "through");
    CLI::Option *file =
        sub->add_option("--file", given->file,
                        "File of clients, MAC,OPENID,APPID,SECRET,DELAY a line; - is standard "
                        "input")
            ->type_name("FILE");
    sub->add_option("--mac", given->mac, "The client")->type_name("MAC");
    sub->add_option("--openid", given->openid, "Its user id, 1 to 31 characters")->type_name("ID");
    sub->add_option("--appid", given->appid, "The account, 1 to 128 characters")->type_name("ID");
    sub->add_option("--secret", given->secret, "The account's secret, 1 to 128 characters")
        ->type_name("TEXT");
    sub->add_option("--delay", given->delay, "Minutes until the check; 0 or less: at once")
        ->type_name("MINUTES");
    for (const char *name : {"--mac", "--openid", "--appid", "--secret", "--delay"}) {
        file->excludes(sub->get_option(name));
    }
    add_delivery(sub, &given->to, "How long to wait for room in the daemon's queue [30]");
    sub->final_callback([given, chosen] {
        if (given->file.empty() &&
            (given->mac.empty() || given->openid.empty() || given->appid.empty() ||
             given->secret.empty() || given->delay.empty())) {
            throw CLI::RequiredError("--file, or each of --mac, --openid, --appid, --secret and "
                                     "--delay,");
        }
        *chosen = [given] { return run_check_follow(*given); };
    });
}

// Breaks lines before WIDTH columns; what goes on stands below the beginning of the line's text.
static std::string wrap(const std::string &text)
{
    static const size_t WIDTH = 100;
    std::string wrapped;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const size_t first = line.find_first_not_of(' ');
        const size_t gap = first != std::string::npos ? line.find("  ", first) : first;
        const size_t column = gap != std::string::npos ? line.find_first_not_of(' ', gap) : first;
        while (line.size() > WIDTH) {
            const size_t space = line.rfind(' ', WIDTH);
            if (space == std::string::npos || space <= column) {
                break;
            }
            wrapped += line.substr(0, space) + "\n";
            line.replace(0, space + 1, column, ' ');
        }
        wrapped += line + "\n";
    }
    return wrapped;
}

// Help and version, which were asked for, or what is wrong with the arguments, in one line.
static int tell_end(const CLI::App &app, const CLI::ParseError &end)
{
    if (end.get_exit_code() == 0) {
        std::ostringstream asked_for;
        app.exit(end, asked_for, asked_for);
        return write_out(wrap(asked_for.str())) ? STATUS_DONE : STATUS_USAGE;
    }
    const std::vector<CLI::App *> named = app.get_subcommands();
    if (named.empty() && !app.remaining().empty()) {
        say("'%s' is no command or option; see 'pelkinctl --help'", app.remaining()[0].c_str());
    } else {
        const std::string name = named.empty() ? "" : named[0]->get_name() + " ";
        say("%s; see 'pelkinctl %s--help'", end.what(), name.c_str());
    }
    return STATUS_USAGE;
}

int run_command_line(int argc, char **argv)
{
    command chosen;
    CLI::App app(DESCRIPTION, "pelkinctl");
    app.set_version_flag("--version", "pelkinctl " PELKINCTL_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this and exit");
    app.footer(FOOTER);
    app.require_subcommand(1);
    add_http(app, "get", "Have URLs fetched and print the answers", 0, &chosen);
    add_http(app, "post", "Have data posted to URLs and print the answers", PELKIN_HTTP_POST,
             &chosen);
    for (void (*add)(CLI::App &, command *) :
         {add_log, add_probe, add_wait, add_status, add_workers, add_top, add_level, add_ignore,
          add_reauth, add_fbauth, add_check_follow}) {
        add(app, &chosen);
    }
    for (CLI::App *sub : app.get_subcommands({})) {
        sub->add_flag_callback("-q,--quiet", be_quiet,
                               "Say nothing on standard error; probe, wait and status print "
                               "nothing either");
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &end) {
        return tell_end(app, end);
    }
    return chosen();
}
