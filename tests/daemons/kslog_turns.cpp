// kslog_turns INSTALL_ROOT ROUNDS: two processes take turns logging into one file, each round one record
// "parent <i>" and two "child <i>" (numbered from 0 in each); status 1 when the turns broke off.
#include <kslog.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) return 1;
    const int rounds = std::atoi(argv[2]);
    int to_child[2], to_parent[2];
    if (::pipe(to_child) != 0 || ::pipe(to_parent) != 0) return 1;
    // Each process starts logging on its own, so each has its own key.
    const pid_t child = ::fork();
    if (child < 0 || kslog_init(argv[0], argv[1], nullptr) != 0) return 1;
    const bool parent = child > 0;
    const int turn_in = parent ? to_parent[0] : to_child[0], turn_out = parent ? to_child[1] : to_parent[1];
    char token = 't';
    int written = 0;
    for (int round = 0; round < rounds; ++round) {
        if ((!parent || round > 0) && ::read(turn_in, &token, 1) != 1) return 1;
        for (int i = 0; i < (parent ? 1 : 2); ++i) {
            std::string text = std::string(KSLOG_HEADER_TEMPLATE "[turns.cpp:1][main()]: ") +
                               (parent ? "parent " : "child ") + std::to_string(written++) + "\n";
            kslog_log_full(0, 2, &text[0], text.size());
        }
        if (::write(turn_out, &token, 1) != 1) return 1;
    }
    kslog_uninit();
    if (!parent) return 0;
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
