# Turns the lines of bench/measure into the tables of docs/performance.md. The lines of one kind come
# sorted by value, so that the middle one is the median.
BEGIN {
    FS = "\t"
    schemes[1] = "plain"
    schemes[2] = "tls"
}

{
    key = $1 " " $2 " " $3
    values[key, ++count[key]] = $4
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

function ratio_row(text, what, whom, of_whom, relation, limit, format, line, s, value) {
    line = "| " text " | " relation " " limit
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

function resident_cell(scheme, limit, kib) {
    kib = median(scheme " resident worker")
    return judged(sprintf("%.1f KiB", kib), kib, "at most", limit)
}

function print_targets(log_ns) {
    print "| what | target | plain | TLS |\n|---|---|---|---|"
    ratio_row("requests a second, 64 outstanding, against the bare loop", "rate", "daemon", "bare", "at least", 0.95, "%.2f")
    ratio_row("the same, against one reused libcurl handle", "rate", "daemon", "libcurl", "above", 1, "%.2f")
    ratio_row("the same, against one `curl` process a request", "rate", "daemon", "process", "at least", 50, "%.0f")
    ratio_row("the daemon's processor time a request, against the bare loop's", "processor", "daemon", "bare", "at most", 2.5, "%.2f")
    ratio_row("median latency, one outstanding, against the bare loop's", "latency", "daemon", "bare", "at most", 2.5, "%.2f")
    printf "| system calls a request, main thread and worker | at most 5 and 7 | %s | %s |\n",
           calls_cell("plain"), calls_cell("tls")
    ratio_row("throughput beside 200 idle workers, against none", "idle", "many", "none", "at least", 0.8, "%.2f")
    printf "| resident memory of an idle worker | at most 40 KiB plain, 100 KiB TLS | %s | %s |\n",
           resident_cell("plain", 40), resident_cell("tls", 100)
    log_ns = median("none micro run_statements/below_level_no_copy")
    printf "| a log statement below the level, filter copy off | under 2 ns | %s | the same |\n",
           judged(sprintf("%.2f ns", log_ns), log_ns, "below", 2)
    printf "| the stripped daemon | for a 16 MB flash | %d KiB | the same |\n",
           median("none size stripped") / 1024
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
    both("resident KiB an idle worker", "resident", "worker", "%.1f")
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
    print_targets()
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
