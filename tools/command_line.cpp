#include "tools/command_line.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

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

// The command that the arguments name, to be run once all of them have been read.
using command = std::function<int()>;

static const char DESCRIPTION[] =
    "pelkinctl: ask, watch and steer pelkin, the HTTP daemon of the wireless-LAN controller.\n"
    "Answers and data go to standard output, everything else to standard error.";
static const char FOOTER[] =
    "Exit status: 0 answered or done, 1 wrong usage (or standard output or a file failed),\n"
    "2 the daemon cannot be reached, 3 no answer in time.\n"
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

static void add_delivery(CLI::App *app, delivery *to, const char *timeout_help)
{
    add_parsed(app, "--timeout", &to->timeout_s, parse_seconds, SECONDS, timeout_help);
    app->add_option("--socket", to->socket, "The daemon's request socket")
        ->type_name("PATH")
        ->capture_default_str();
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

static void add_http(CLI::App &app, const char *name, const char *help, uint32_t http_req_type,
                     command *chosen)
{
    const bool is_post = http_req_type == PELKIN_HTTP_POST;
    auto given = std::make_shared<http_command>();
    given->request.http_req_type = http_req_type;
    CLI::App *sub = app.add_subcommand(name, help);
    add_url(sub, &given->request.url);
    sub->add_option("--data", given->text,
                    is_post ? "Body of the request, at most 1024 bytes"
                            : "Query, without its '?': at most 1024 bytes, URL-encoded")
        ->type_name("TEXT")
        ->required(is_post)
        ->check(CLI::Validator(is_post ? body_fault : query_fault, ""));
    add_answer_options(sub, given);
    add_parsed(sub, "--msg-id", &given->request.msg_id, parse_request_id, MESSAGE_ID,
               "Message id, decimal or 0x... [0x15000001]");
    add_parsed(sub, "--mac", &given->mac, parse_mac, STATION_ADDRESS,
               "Station address that goes with the data, for analyses [00:00:00:00:00:00]");
    add_delivery(sub, &given->to, "How long to wait for the answer [30]");
    sub->final_callback([given, chosen] { *chosen = [given] { return run_http(*given); }; });
}

static void add_log(CLI::App &app, command *chosen)
{
    CLI::App *sub = app.add_subcommand("log", "Show the daemon's log live");
    sub->footer("Takes the place of the log service at /tmp/ttylog.msg while none runs, until it "
                "is\ninterrupted; the exit status is then 0, or 2 when the place was taken. A "
                "daemon that\nruns already shows with its next message. Its messages also go to "
                "the system log, always.");
    sub->final_callback([chosen] { *chosen = run_log; });
}

static void add_probe(CLI::App &app, command *chosen)
{
    auto given = std::make_shared<probe_command>();
    CLI::App *sub = app.add_subcommand("probe", "Ask the daemon whether it is alive, as the system "
                                                "monitor does");
    add_parsed(sub, "--timeout", &given->timeout_s, parse_seconds, SECONDS,
               "How long to wait for the answer [2]");
    sub->add_flag("--json", given->json, "Print one JSON object");
    sub->final_callback([given, chosen] { *chosen = [given] { return run_probe(*given); }; });
}

static void add_status(CLI::App &app, command *chosen)
{
    auto json = std::make_shared<bool>(false);
    CLI::App *sub = app.add_subcommand(
        "status", "Show process, liveness, log level file, switches and resources");
    sub->add_flag("--json", *json, "Print one JSON object");
    sub->footer("Level file and switches are what stands in /tmp; the daemon reads them when it is "
                "told to\n(pelkinctl level, pelkinctl ignore). The exit status is that of a "
                "probe.");
    sub->final_callback([json, chosen] { *chosen = [json] { return run_status(*json); }; });
}

static bool parse_level_option(const std::string &text, int32_t *level)
{
    *level = parse_level(text);
    return *level >= 0;
}

static void add_level(CLI::App &app, command *chosen)
{
    auto level = std::make_shared<int32_t>(0);
    CLI::App *sub = app.add_subcommand("level", "Set the least important level that is logged");
    add_parsed(sub, "LEVEL", level.get(), parse_level_option, LEVEL, LEVEL.description)->required();
    sub->footer("Writes /tmp/pelkinLogLevel and sends SIGUSR1 to the daemon.");
    sub->final_callback([level, chosen] { *chosen = [level] { return run_level(*level); }; });
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
    sub->add_option("--data", given->text, "Query for the server, URL-encoded, at most 1024 bytes")
        ->type_name("TEXT")
        ->required();
    sub->add_flag("--post", given->post, "Send the data as the body of a POST instead");
    add_as_kivren(sub, &given->as_kivren);
    add_delivery(sub, &given->to, "How long to wait for the removal, with --as-kivren [30]");
    sub->footer("With --as-kivren, 0 means that the daemon wants the station deleted, 3 that "
                "nothing came in\ntime, which is how a valid token shows.");
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

int run_command_line(int argc, char **argv)
{
    command chosen;
    CLI::App app(DESCRIPTION, "pelkinctl");
    app.set_version_flag("--version", "pelkinctl " PELKINCTL_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this and exit");
    app.footer(FOOTER);
    app.failure_message(CLI::FailureMessage::simple);
    app.require_subcommand(1);
    add_http(app, "get", "Have a URL fetched and print the answer", 0, &chosen);
    add_http(app, "post", "Have data posted to a URL and print the answer", PELKIN_HTTP_POST,
             &chosen);
    add_log(app, &chosen);
    add_probe(app, &chosen);
    add_status(app, &chosen);
    add_level(app, &chosen);
    add_ignore(app, &chosen);
    add_reauth(app, &chosen);
    add_fbauth(app, &chosen);
    add_check_follow(app, &chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &end) {
        if (end.get_exit_code() != 0 && app.get_subcommands().empty() && !app.remaining().empty()) {
            say("'%s' is no command or option; see 'pelkinctl --help'", app.remaining()[0].c_str());
            return STATUS_USAGE;
        }
        const bool asked_for = app.exit(end) == 0;
        if (!std::cout.flush()) {
            say("cannot write to standard output");
            return STATUS_USAGE;
        }
        return asked_for ? STATUS_DONE : STATUS_USAGE;
    }
    return chosen();
}
