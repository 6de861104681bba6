# Turns the lines of bench/measure into the tables of docs/performance.md. The lines of one kind come
# sorted by value, so that the middle one is the median.
BEGIN {
    FS = "\t"
    schemes[1] = "plain"
    schemes[2] = "tls"
}

{
    key = $1 " " $2 " " $3
    if ($1 == "plain" && $2 == "servers-rate@together" && !(key in count)) {
        place_server_count($3 + 0)
    }
    values[key, ++count[key]] = $4
}

# The numbers of servers, in ascending order.
function place_server_count(n, i) {
    for (i = ++server_counts; i > 1 && server_count[i - 1] > n; i--) {
        server_count[i] = server_count[i - 1]
    }
    server_count[i] = n
}

function median(key, n) {
    n = count[key]
    if (n == 0) {
        missing = missing " [" key "]"
        return 0
    }
    return (values[key, int((n + 1) / 2)] + values[key, int(n / 2) + 1]) / 2
}

function range(key, format) {
    return sprintf(format " (" format " to " format ")", median(key), values[key, 1],
                   values[key, count[key]])
}

function ratio(scheme, what, whom, of_whom) {
    return median(scheme " " what " " whom) / (median(scheme " " what " " of_whom) + 1e-12)
}

function is_met(value, relation, limit) {
    if (relation == "at least") {
        return value >= limit
    }
    if (relation == "at most") {
        return value <= limit
    }
    return relation == "above" ? value > limit : value < limit
}

# A cell: the number and what it means for the target.
function judged(text, value, relation, limit) {
    return text (is_met(value, relation, limit) ? ", met" : ", **MISSED**")
}

# Judged by what ran on one processor; what the kernel placed itself stands beside it.
function ratio_row(text, what, whom, of_whom, relation, limit, tls_limit, format, line, s, value) {
    line = "| " text " | " relation " " limit (tls_limit == limit ? "" : " plain, " tls_limit " TLS")
    for (s = 1; s <= 2; s++) {
        value = ratio(schemes[s], what "@together", whom, of_whom)
        line = line " | " judged(sprintf(format, value), value, relation, s == 1 ? limit : tls_limit)
    }
    for (s = 1; s <= 2; s++) {
        line = line " | " sprintf(format, ratio(schemes[s], what, whom, of_whom))
    }
    print line " |"
}

# Judged as the kernel placed it: a comparison with what a module could do instead.
function unpinned_row(text, what, whom, of_whom, relation, limit, format, line, s, value) {
    line = "| " text " | " relation " " limit " | |"
    for (s = 1; s <= 2; s++) {
        value = ratio(schemes[s], what, whom, of_whom)
        line = line " | " judged(sprintf(format, value), value, relation, limit)
    }
    print line " |"
}

# The larger of the two runs counts.
function calls_of(scheme, thread, one, many) {
    one = median(scheme " calls-1 " thread ":total")
    many = median(scheme " calls-64 " thread ":total")
    return one > many ? one : many
}

# A call that was under way when the counting began or ended is no call a request.
function calls_cell(scheme, main, worker) {
    main = calls_of(scheme, "main")
    worker = calls_of(scheme, "worker")
    return judged(sprintf("%.2f and %.2f", main, worker), main > 5.005 || worker > 7.005, "below", 1)
}

function cell(key, format, relation, limit, value) {
    value = median(key)
    return judged(sprintf(format, value), value, relation, limit)
}

function main_growth(scheme, value) {
    value = median(scheme " servers-main@together " most_servers) / \
            (median(scheme " servers-main@together " fewest_servers) + 1e-12)
    return judged(sprintf("%.2f", value), value, "at most", 1.5)
}

function print_targets(log_ns, size) {
    print "| what | target | plain, one processor | TLS, one processor | plain, unpinned | TLS, unpinned |"
    print "|---|---|---|---|---|---|"
    ratio_row("requests a second, 64 outstanding, against the bare loop", "rate", "daemon", "bare", "at least", 0.40, 0.43, "%.2f")
    ratio_row("the daemon's processor time a request, against the bare loop's", "processor", "daemon", "bare", "at most", 3.0, 2.8, "%.2f")
    ratio_row("median latency, one outstanding, against the bare loop's", "latency", "daemon", "bare", "at most", 2.8, 2.6, "%.2f")
    ratio_row("throughput beside 200 idle workers, against none", "idle", "many", "none", "at least", 0.95, 0.95, "%.2f")
    unpinned_row("requests a second against one reused libcurl handle", "rate", "daemon", "libcurl", "above", 1, "%.2f")
    unpinned_row("the same, against one `curl` process a request", "rate", "daemon", "process", "at least", 50, "%.0f")
    printf "| the main thread's processor time a request beside %d workers, against %d | at most 1.5 | %s | %s | | |\n",
           most_servers, fewest_servers, main_growth("plain"), main_growth("tls")
    printf "| an answer in two segments, the second one held back until the first is acknowledged | under 1000 µs | | | %s | %s |\n",
           cell("plain split daemon", "%.0f µs", "below", 1000), cell("tls split daemon", "%.0f µs", "below", 1000)
    printf "| system calls a request, main thread and worker | at most 5 and 7 | | | %s | %s |\n",
           calls_cell("plain"), calls_cell("tls")
    printf "| resident memory of an idle worker, of 200 | at most 24 KiB plain, 50 KiB TLS | %s | %s | | |\n",
           cell("plain resident@together 200", "%.1f KiB", "at most", 24), cell("tls resident@together 200", "%.1f KiB", "at most", 50)
    printf "| kernel memory of an idle worker's pipe | at most 1.5 KiB | %s | %s | | |\n",
           cell("plain memory-pipes@together 200", "%.2f KiB", "at most", 1.5), cell("tls memory-pipes@together 200", "%.2f KiB", "at most", 1.5)
    log_ns = median("none micro run_statements/below_level_no_copy")
    printf "| a log statement below the level, filter copy off | under 2 ns | %s | the same | | |\n",
           judged(sprintf("%.2f ns", log_ns), log_ns, "below", 2)
    printf "| a printed log line, both readers reading, filter copy on | as low as it goes | %s | the same | | |\n",
           values["none micro print_lines/copied", 1]
    size = median("none size stripped") / 1024
    printf "| the stripped daemon | at most 116 KiB | %s | the same | | |\n",
           judged(sprintf("%.0f KiB", size), size, "at most", 116)
}

# A row a number of servers; the busy one comes on top.
function print_servers(i, s, n) {
    print "| servers | requests/s, plain | TLS | processor time, µs, plain | TLS | of the main thread, plain | TLS | resident KiB a worker, plain | TLS |"
    print "|---|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= server_counts; i++) {
        n = server_count[i]
        printf "| %d", n
        for (s = 1; s <= 2; s++) printf " | %.0f", median(schemes[s] " servers-rate@together " n)
        for (s = 1; s <= 2; s++) printf " | %.2f", median(schemes[s] " servers-processor@together " n)
        for (s = 1; s <= 2; s++) printf " | %.2f", median(schemes[s] " servers-main@together " n)
        for (s = 1; s <= 2; s++) printf " | %.1f", median(schemes[s] " resident@together " n)
        print " |"
    }
}

function memory_of(scheme, part) {
    return median(scheme " memory-" part "@together 200")
}

function print_plots() {
    print "\n![Requests a second and processor time](images/performance-load.svg)"
    print "\n![Latency](images/performance-latency.svg)"
    print "\n![Processor time against the number of servers](images/performance-servers.svg)"
    print "\n![Memory of an idle worker](images/performance-memory.svg)"
}

# For bench/plots.gp, into the directory `plots`.
function write_plot_data(s, i, n, name, whole) {
    for (s = 1; s <= 2; s++) {
        name = s == 1 ? "plain" : "TLS"
        print name, median(schemes[s] " rate@together daemon"), median(schemes[s] " rate@together bare") > (plots "/rate.dat")
        print name, median(schemes[s] " processor@together daemon"), median(schemes[s] " processor@together bare") > (plots "/processor.dat")
        print "\"" name ", one processor\"", median(schemes[s] " latency@together daemon"), median(schemes[s] " latency@together bare") > (plots "/latency.dat")
        print "\"" name ", unpinned\"", median(schemes[s] " latency daemon"), median(schemes[s] " latency bare") > (plots "/latency.dat")
        whole = median(schemes[s] " resident@together 200")
        print name, memory_of(schemes[s], "heap"), whole - memory_of(schemes[s], "heap"), \
              memory_of(schemes[s], "pagetables"), memory_of(schemes[s], "pipes") > (plots "/memory.dat")
    }
    for (i = 1; i <= server_counts; i++) {
        n = server_count[i]
        print n, median("plain servers-processor@together " n), median("plain servers-main@together " n), \
              median("tls servers-processor@together " n), median("tls servers-main@together " n) > (plots "/servers.dat")
    }
}

function print_busy_parts(key, parts) {
    for (key in count) {
        split(key, parts, " ")
        if (parts[2] == "busy") {
            gsub("_", " ", parts[3])
            printf "\nThe machine was busy before the part \"%s\": idle for %d %% only.\n", parts[3], values[key, 1]
        }
    }
}

function both(text, what, whom, format) {
    printf "| %s | %s | %s |\n", text, range("plain " what " " whom, format),
           range("tls " what " " whom, format)
}

function print_numbers() {
    print "| number: median (lowest to highest round) | plain | TLS |\n|---|---|---|"
    both("requests/s: daemon, 64 outstanding", "rate", "daemon", "%.0f")
    both("requests/s: bare loop", "rate", "bare", "%.0f")
    both("requests/s: libcurl handle", "rate", "libcurl", "%.0f")
    both("requests/s: `curl` process a request", "rate", "process", "%.0f")
    both("processor time a request, µs: daemon, all threads", "processor", "daemon", "%.2f")
    both("processor time a request, µs: bare loop", "processor", "bare", "%.2f")
    both("processor time a request, µs: libcurl handle", "processor", "libcurl", "%.2f")
    both("latency, µs: daemon, one outstanding", "latency", "daemon", "%.1f")
    both("latency, µs: bare loop", "latency", "bare", "%.1f")
    both("requests/s: daemon alone, started anew", "idle", "none", "%.0f")
    both("requests/s: daemon with 200 idle workers", "idle", "many", "%.0f")
    both("resident KiB an idle worker", "resident", "200", "%.1f")
}

function placed_row(text, what, whom, format, s, line) {
    line = "| " text
    for (s = 1; s <= 2; s++) {
        line = line " | " sprintf(format, median(schemes[s] " " what "@together " whom)) \
               " | " sprintf(format, median(schemes[s] " " what "@apart " whom))
    }
    print line " |"
}

function print_placed() {
    print "| number | plain, one processor | plain, server apart | TLS, one processor | TLS, server apart |"
    print "|---|---|---|---|---|"
    placed_row("requests/s: daemon, 64 outstanding", "rate", "daemon", "%.0f")
    placed_row("requests/s: bare loop", "rate", "bare", "%.0f")
    placed_row("requests/s: libcurl handle", "rate", "libcurl", "%.0f")
    placed_row("processor time a request, µs: daemon, all threads", "processor", "daemon", "%.2f")
    placed_row("processor time a request, µs: bare loop", "processor", "bare", "%.2f")
    placed_row("processor time a request, µs: libcurl handle", "processor", "libcurl", "%.2f")
    placed_row("latency, µs: daemon, one outstanding", "latency", "daemon", "%.1f")
    placed_row("latency, µs: bare loop", "latency", "bare", "%.1f")
    placed_row("requests/s: daemon alone, started anew", "idle", "none", "%.0f")
    placed_row("requests/s: daemon with 200 idle workers", "idle", "many", "%.0f")
}

# The calls that any of the runs made, each thread's in alphabetical order.
function print_calls(names, n, i, j, key, parts, swapped, s, o, line) {
    print "| thread: call | plain, 1 | plain, 64 | TLS, 1 | TLS, 64 |\n|---|---|---|---|---|"
    for (key in count) {
        split(key, parts, " ")
        if (parts[2] ~ /^calls-/ && !((parts[3]) in seen)) {
            seen[parts[3]] = 1
            names[++n] = parts[3]
        }
    }
    for (i = 1; i < n; i++) {
        for (j = i + 1; j <= n; j++) {
            if (names[j] < names[i]) {
                swapped = names[i]
                names[i] = names[j]
                names[j] = swapped
            }
        }
    }
    for (i = 1; i <= n; i++) {
        line = "| " names[i]
        for (s = 1; s <= 2; s++) {
            for (o = 1; o <= 64; o += 63) {
                key = schemes[s] " calls-" o " " names[i]
                line = line " | " (key in count ? sprintf("%.2f", median(key)) : "")
            }
        }
        print line " |"
    }
}

function print_microbenchmarks(key, parts) {
    print "| microbenchmark | time |\n|---|---|"
    for (key in count) {
        split(key, parts, " ")
        if (parts[2] == "micro") {
            printf "| `%s` | %s |\n", parts[3], values[key, 1] | "sort"
        }
    }
    close("sort")
}

END {
    fewest_servers = server_count[1]
    most_servers = server_count[server_counts]
    print_targets()
    print_busy_parts()
    print_plots()
    write_plot_data()
    print "\n## Many servers\n"
    print_servers()
    print "\n## The numbers\n"
    print_numbers()
    if (("plain rate@apart daemon") in count) {
        print "\n## The same, placed by hand\n"
        print_placed()
    }
    print "\n## System calls a request\n"
    print_calls()
    print "\n## Microbenchmarks\n"
    print_microbenchmarks()
    if (missing != "") {
        print "report.awk: not measured:" missing > "/dev/stderr"
        exit 1
    }
}
