// Usage: load-client ADDRESS CLIENTS STEP [SEED]
//
// Connects CLIENTS times to the bus at ADDRESS and takes orders on standard input, one number a line: so many
// requests are sent, each client having one on its way at any time. Writes "answered" after every STEP
// answers of the whole run, and "done" when all requests of an order are answered. At the end of input it
// writes a line for each kind of request and answer ("answer<TAB>kind<TAB>answer<TAB>count"), then
// "signals<TAB>count" and "wrong<TAB>count", and ends with status 1 if an answer was not documented or is
// missing.

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "load.hpp"

namespace {

constexpr unsigned kUsualSeed = 1;

void report(const Answers& answers)
{
    for (const auto& [kind, counts] : answers.counts) {
        for (const auto& [answer, count] : counts) {
            std::cout << "answer\t" << kind << '\t' << answer << '\t' << count << '\n';
        }
    }
    std::cout << "signals\t" << answers.signals << '\n' << "wrong\t" << answers.wrong << std::endl;
}

int serve(int argc, char** argv)
{
    const size_t step = std::stoul(argv[3]);
    Load load(argv[1], std::stoul(argv[2]), argc > 4 ? std::stoul(argv[4]) : kUsualSeed);
    for (std::string order; std::getline(std::cin, order);) {
        load.run(std::stoul(order), [&] {
            if (load.answers().answered % step == 0) {
                std::cout << "answered" << std::endl;
            }
        });
        std::cout << "done" << std::endl;
    }
    report(load.answers());
    return load.answers().wrong == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::cerr << "usage: load-client ADDRESS CLIENTS STEP [SEED]\n";
        return 2;
    }
    try {
        return serve(argc, argv);
    } catch (const std::exception& problem) {
        std::cerr << "load-client: " << problem.what() << '\n';
        return 2;
    }
}
