// bench_parts: the parts of the program one by one (Google Benchmark).
#include "app/transport_info.h"
#include "common/sj.h"
#include "postfix/MasterCfContent.h"
#include "postfix/ModuleManager.h"
#include "process/Pipe.h"
#include "process/iterateProcesses.h"

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

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

/// A document that is mostly strings in members nobody asks for.
std::string makeStrings(int count)
{
    std::string text = "{\"note\":[";
    for (int i = 0; i < count; ++i)
        text += std::string(i != 0 ? "," : "") + "\"" + std::string(200, 'x') + "\"";
    return text + "],\"domains\":[]}";
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

/// Every token of the document through the reader alone, every string unescaped, nothing kept.
bool readTokens(char* text)
{
    sj_parser* const parser = sj_create_parser(text, nullptr);
    const bool good = sj_skip_value(parser) == SJ_OK;
    sj_free_parser(parser);
    return good;
}

bool readWithRapidJson(char* text)
{
    rapidjson::Document document;
    document.ParseInsitu(text);
    return !document.HasParseError() && document["domains"].IsArray();
}

/// Both readers change the text, so each pass reads a fresh copy; the copy counts for both.
template <bool (*read)(char*)>
void runReader(benchmark::State& state, const std::string& document)
{
    std::vector<char> text(document.size() + 1);
    for (auto _ : state) {
        std::memcpy(text.data(), document.c_str(), text.size());
        if (!read(text.data()))
            state.SkipWithError("not read");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document.size()));
}

void JsonRequest(benchmark::State& state)
{
    runReader<readRequest>(state, makeRequest(static_cast<int>(state.range(0))));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(JsonRequest)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

void JsonReader(benchmark::State& state)
{
    runReader<readTokens>(state, makeRequest(static_cast<int>(state.range(0))));
}
BENCHMARK(JsonReader)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

void JsonRequestRapid(benchmark::State& state)
{
    runReader<readWithRapidJson>(state, makeRequest(static_cast<int>(state.range(0))));
}
BENCHMARK(JsonRequestRapid)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

void JsonStrings(benchmark::State& state)
{
    runReader<readRequest>(state, makeStrings(static_cast<int>(state.range(0))));
}
BENCHMARK(JsonStrings)->Arg(10000);

void JsonStringsRapid(benchmark::State& state)
{
    runReader<readWithRapidJson>(state, makeStrings(static_cast<int>(state.range(0))));
}
BENCHMARK(JsonStringsRapid)->Arg(10000);

const char* const masterCfPath = "/run/sandbox/bench-master.cf";

int64_t writeMasterCf(int64_t services)
{
    std::ofstream file(masterCfPath, std::ios::trunc);
    file << "# service type  private unpriv  chroot  wakeup  maxproc command + args\n";
    for (int64_t i = 0; i < services; ++i)
        file << "zorvo-customer-" << i << ".example.com-192.0.2.1- unix - - n - - smtp"
             << " -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= -o smtp_address_preference=ipv4"
             << " -o inet_protocols=ipv4 -o smtp_helo_name=customer-" << i << ".example.com\n";
    return file.tellp();
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
    const int64_t size = writeMasterCf(state.range(0));
    for (auto _ : state)
        state.SetIterationTime(timeLoad());
    state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(MasterCfLoad)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime();

void MasterCfStore(benchmark::State& state)
{
    writeMasterCf(state.range(0));
    MasterCfContent content;
    ModuleManager::loadMasterCf(masterCfPath, content);
    for (auto _ : state)
        ModuleManager::storeMasterCf(masterCfPath, content);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(MasterCfStore)->Arg(100)->Arg(1000);

void LaunchPipe(benchmark::State& state)
{
    for (auto _ : state) {
        std::string out;
        std::string err;
        zorvo::process::Pipe pipe;
        pipe.stdoutFd = zorvo::process::kPipeFd;
        pipe.stdoutReceiver = zorvo::process::makeStringReceiver(out);
        pipe.stderrFd = zorvo::process::kPipeFd;
        pipe.stderrReceiver = zorvo::process::makeStringReceiver(err);
        pipe.processes().emplace_back("/bin/true");
        if (pipe.run() != 0)
            state.SkipWithError("/bin/true failed");
    }
}
BENCHMARK(LaunchPipe)->UseRealTime();

void drain(int fd)
{
    char buffer[1024];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
    ::close(fd);
}

void LaunchBare(benchmark::State& state)
{
    for (auto _ : state) {
        int out[2];
        int err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
            std::abort();
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::dup2(err[1], STDERR_FILENO);
            ::execl("/bin/true", "/bin/true", nullptr);
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        drain(out[0]);
        drain(err[0]);
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid || status != 0)
            state.SkipWithError("/bin/true failed");
    }
}
BENCHMARK(LaunchBare)->UseRealTime();

void ProcessWalk(benchmark::State& state)
{
    int count = 0;
    const auto countProcess = [](process_info*, void* context) {
        ++*static_cast<int*>(context);
        return 1;
    };
    for (auto _ : state) {
        count = 0;
        iterateProcesses(PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND, countProcess, &count);
    }
    state.counters["processes"] = count;
}
BENCHMARK(ProcessWalk);

} // namespace
