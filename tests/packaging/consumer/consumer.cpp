// Uses one thing of each installed library. Prints what it got, for the test to compare.
#include "common/sj.h"
#include "postfix/MasterCfContent.h"
#include "postfix/ModuleManager.h"
#include "process/Pipe.h"

#include <iostream>
#include <string>

int main(int, char* argv[])
{
    char text[] = "[42]";
    sj_parser* const parser = sj_create_parser(text, nullptr);
    sj_parse_array_start(parser);
    std::cout << "common: " << sj_parse_int(parser) << '\n';
    sj_free_parser(parser);

    std::string out;
    zorvo::process::Pipe pipe;
    pipe.processes().push_back(
        zorvo::process::Parameters<zorvo::process::PipeProcessFlags>("/bin/echo", "run"));
    pipe.stdoutFd = zorvo::process::kPipeFd;
    pipe.stdoutReceiver = zorvo::process::makeStringReceiver(out);
    std::cout << "process: " << pipe.run() << ' ' << out;

    zorvo::mail::postfix::MasterCfContent content;
    zorvo::mail::postfix::ModuleManager::loadMasterCf(argv[1], content);
    std::cout << "postfix: " << content.modules().size() << '\n';
}
