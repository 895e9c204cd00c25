// bench_readers: the request reader and the master.cf reader alone, at two sizes each (Google Benchmark).
#include "app/transport_info.h"
#include "common/sj.h"
#include "postfix/MasterCfContent.h"
#include "postfix/ModuleManager.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

using zorvo::mail::postfix::MasterCfContent;
using zorvo::mail::postfix::ModuleManager;

/// A request as the panel writes it, `domains` entries.
std::string makeRequest(int domains)
{
    std::string text = "{\"domains\":[";
    for (int i = 0; i < domains; ++i) {
        const std::string number = std::to_string(i);
        text += std::string(i != 0 ? "," : "") + "{\"domain\":\"customer-" + number +
                ".example.com\",\"ip4_addr\":\"192.0.2." + std::to_string(i % 250) +
                "\",\"ip6_addr\":\"2001:db8::" + std::to_string(i % 9999) + "\"}";
    }
    return text + "]}";
}

bool readRequest(char* text)
{
    sj_parser* const parser = sj_create_parser(text, nullptr);
    transport_info* const info = create_transport_info_object(parser);
    const bool good = parse_transport_info_object(parser, info) == 0;
    free_transport_info_object(parser, info);
    sj_free_parser(parser);
    return good;
}

/// Reading changes the text, so each pass reads a fresh copy.
void JsonRequest(benchmark::State& state)
{
    const std::string document = makeRequest(static_cast<int>(state.range(0)));
    std::vector<char> text(document.size() + 1);
    for (auto _ : state) {
        std::memcpy(text.data(), document.c_str(), text.size());
        if (!readRequest(text.data()))
            state.SkipWithError("not read");
    }
}
BENCHMARK(JsonRequest)->Arg(1000)->Arg(100000);

const char* const masterCfPath = "/run/sandbox/bench-master.cf";

void writeMasterCf(int64_t services)
{
    std::ofstream file(masterCfPath, std::ios::trunc);
    file << "# service type  private unpriv  chroot  wakeup  maxproc command + args\n";
    for (int64_t i = 0; i < services; ++i)
        file << "zorvo-customer-" << i << ".example.com-192.0.2.1- unix - - n - - smtp"
             << " -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= -o smtp_address_preference=ipv4"
             << " -o inet_protocols=ipv4 -o smtp_helo_name=customer-" << i << ".example.com\n";
}

/// Seconds for one load in a process of its own, page faults included, as in a run of the program. Loading
/// again and again in one process would time malloc(3) on the scattered memory of the load before.
double timeLoad()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        std::abort();
    const pid_t pid = ::fork();
    if (pid == 0) {
        const auto start = std::chrono::steady_clock::now();
        MasterCfContent content;
        ModuleManager::loadMasterCf(masterCfPath, content);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ::_exit(::write(ends[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    }
    ::close(ends[1]);
    double seconds = 0;
    if (::read(ends[0], &seconds, sizeof seconds) != sizeof seconds)
        std::abort();
    ::close(ends[0]);
    ::waitpid(pid, nullptr, 0);
    return seconds;
}

void MasterCfLoad(benchmark::State& state)
{
    writeMasterCf(state.range(0));
    for (auto _ : state)
        state.SetIterationTime(timeLoad());
}
BENCHMARK(MasterCfLoad)->Arg(1000)->Arg(100000)->UseManualTime();

} // namespace
