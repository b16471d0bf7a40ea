// inject REPORT [FAULT...] -- COMMAND [ARGUMENT...]: runs a command in which chosen system calls go wrong.
//
// FAULT is PROGRAM:CALL:N:OUTCOME or, for the N-th call and all behind it, PROGRAM:CALL:N+:OUTCOME. The calls
// of a program (by the name of its file) are counted over all its threads, from its own first instruction on:
// what the dynamic linker does before is left alone. Outcomes are those of Calls.h.
//
// REPORT receives a line for each fact: "count PROGRAM CALL NUMBER", "hit FAULT", "signal PROGRAM SIGNAL" for
// each process that a signal ended, "exit STATUS" or "killed SIGNAL" for the command itself.
#include "Calls.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <err.h>
#include <fstream>
#include <limits.h>
#include <map>
#include <optional>
#include <string>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Registers = user_regs_struct;

struct Fault {
    std::string text;
    std::string program;
    const CallFaults *call = nullptr;
    long number = 0;
    bool onwards = false;
    std::string outcome;
    bool hit = false;

    bool isFor(const std::string &name, const CallFaults &entered, long count) const
    {
        return program == name && call == &entered && (count == number || (onwards && count > number));
    }
};

// What has to be put right when the thread comes out of the call at hand.
struct Pending {
    int error = 0;
    std::optional<unsigned long long> length; // the argument as the program had it
    const CallFaults *call = nullptr;
};

struct Thread {
    std::string program;
    unsigned long entry = 0; // of a program that the dynamic linker still prepares
    long replaced = 0; // the instructions there, under the breakpoint
    Pending pending;
};

unsigned long long &argument(Registers &registers, int index)
{
    unsigned long long *const arguments[] = {&registers.rdi, &registers.rsi, &registers.rdx,
                                             &registers.r10, &registers.r8,  &registers.r9};
    return *arguments[index];
}

Registers registersOf(pid_t thread)
{
    Registers registers{};
    ::ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
    return registers;
}

void setRegisters(pid_t thread, Registers &registers)
{
    ::ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
}

// Where a link that the system keeps for a thread leads.
std::string linkOf(pid_t thread, const std::string &name)
{
    std::array<char, PATH_MAX> target{};
    const std::string link = "/proc/" + std::to_string(thread) + '/' + name;
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    return {target.data(), length < 0 ? 0 : size_t(length)};
}

std::string programOf(pid_t thread)
{
    const std::string path = linkOf(thread, "exe");
    return path.substr(path.rfind('/') + 1);
}

// Whether a call only wakes a thread or is woken: memory, which no fault of the machine reaches.
bool isWakeUp(pid_t thread, const CallFaults &call, unsigned long long descriptor)
{
    return (call.call == "read" || call.call == "write")
        && linkOf(thread, "fd/" + std::to_string(descriptor)).starts_with("anon_inode:");
}

// The address of the program's own first instruction.
unsigned long entryOf(pid_t process)
{
    std::ifstream vector("/proc/" + std::to_string(process) + "/auxv", std::ios::binary);
    for (Elf64_auxv_t item; vector.read(reinterpret_cast<char *>(&item), sizeof item);) {
        if (item.a_type == AT_ENTRY)
            return item.a_un.a_val;
    }
    return 0;
}

pid_t processOf(pid_t thread)
{
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    for (std::string word; status >> word;) {
        if (word == "Tgid:") {
            pid_t process = 0;
            status >> process;
            return process;
        }
    }
    return thread;
}

class Tracer
{
public:
    explicit Tracer(std::vector<Fault> faults)
        : m_faults(std::move(faults))
    {
    }

    // Until the command and all that it started have ended.
    void follow(pid_t command)
    {
        m_command = command;
        int status = 0;
        for (pid_t thread; (thread = ::waitpid(-1, &status, __WALL)) > 0 || errno == EINTR;) {
            if (thread > 0)
                changed(thread, status);
        }
    }

    void report(std::FILE *to) const
    {
        for (const auto &[key, count] : m_counts)
            std::fprintf(to, "count %s %s %ld\n", key.first.c_str(), key.second.c_str(), count);
        for (const Fault &fault : m_faults) {
            if (fault.hit)
                std::fprintf(to, "hit %s\n", fault.text.c_str());
        }
        for (const auto &[program, signal] : m_signals)
            std::fprintf(to, "signal %s %d\n", program.c_str(), signal);
        if (WIFEXITED(m_status))
            std::fprintf(to, "exit %d\n", WEXITSTATUS(m_status));
        else
            std::fprintf(to, "killed %d\n", WTERMSIG(m_status));
    }

    int exitStatus() const { return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status); }

private:
    void changed(pid_t id, int status)
    {
        if (WIFEXITED(status) || WIFSIGNALED(status))
            return ended(id, status);
        Thread &thread = known(id);
        const int signal = WSTOPSIG(status);
        const int event = status >> 16;
        if (signal == (SIGTRAP | 0x80))
            return atCall(id, thread);
        if (event == PTRACE_EVENT_EXEC)
            return loaded(id, thread);
        if (event == PTRACE_EVENT_STOP && signal != SIGTRAP)
            ::ptrace(PTRACE_LISTEN, id, nullptr, nullptr);
        else if (event != 0)
            goOn(id, thread);
        else if (signal == SIGTRAP && thread.entry != 0)
            entered(id, thread);
        else
            goOn(id, thread, signal);
    }

    Thread &known(pid_t id)
    {
        const auto [at, isNew] = m_threads.try_emplace(id);
        if (isNew)
            at->second.program = programOf(id);
        return at->second;
    }

    static void goOn(pid_t id, const Thread &thread, int signal = 0)
    {
        ::ptrace(thread.entry != 0 ? PTRACE_CONT : PTRACE_SYSCALL, id, nullptr, signal);
    }

    void ended(pid_t id, int status)
    {
        if (id == m_command)
            m_status = status;
        const auto at = m_threads.find(id);
        if (WIFSIGNALED(status) && at != m_threads.end()
            && (m_killed.find(at->second.program) == m_killed.end() || WTERMSIG(status) != SIGKILL))
            m_signals[at->second.program] = WTERMSIG(status);
        m_threads.erase(id);
    }

    // Lets the dynamic linker work in peace, up to a breakpoint at the program's entry.
    void loaded(pid_t id, Thread &thread)
    {
        thread = {.program = programOf(id), .entry = entryOf(id), .replaced = 0, .pending = {}};
        if (thread.entry != 0) {
            constexpr long breakpoint = 0xCC;
            errno = 0;
            thread.replaced = ::ptrace(PTRACE_PEEKTEXT, id, thread.entry, nullptr);
            if (errno != 0
                || ::ptrace(PTRACE_POKETEXT, id, thread.entry, (thread.replaced & ~0xFFL) | breakpoint) != 0)
                thread.entry = 0;
        }
        goOn(id, thread);
    }

    static void entered(pid_t id, Thread &thread)
    {
        ::ptrace(PTRACE_POKETEXT, id, thread.entry, thread.replaced);
        Registers registers = registersOf(id);
        registers.rip = thread.entry;
        setRegisters(id, registers);
        thread.entry = 0;
        goOn(id, thread);
    }

    void atCall(pid_t id, Thread &thread)
    {
        __ptrace_syscall_info info{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
            beforeCall(id, thread, long(info.entry.nr), info.entry.args[0]);
        else if (info.op == PTRACE_SYSCALL_INFO_EXIT)
            afterCall(id, thread);
        goOn(id, thread);
    }

    void beforeCall(pid_t id, Thread &thread, long number, unsigned long long firstArgument)
    {
        thread.pending = {};
        const CallFaults *const call = findCall(number);
        if (!call || isWakeUp(id, *call, firstArgument))
            return;
        const long count = ++m_counts[{thread.program, std::string(call->call)}];
        for (Fault &fault : m_faults) {
            if (fault.isFor(thread.program, *call, count)) {
                fault.hit = true;
                breakCall(id, thread, fault);
            }
        }
    }

    void breakCall(pid_t id, Thread &thread, const Fault &fault)
    {
        if (fault.outcome == "kill") {
            m_killed.insert({thread.program, true});
            ::kill(processOf(id), SIGKILL);
            return;
        }
        Registers registers = registersOf(id);
        if (fault.outcome == "short") {
            unsigned long long &length = argument(registers, fault.call->lengthArgument);
            thread.pending.length = length;
            thread.pending.call = fault.call;
            length = std::max(length / 2, std::min(length, 1ULL));
        } else {
            thread.pending.error = errorNumber(fault.outcome);
            if (fault.call->call != "close") // which closes even when it fails
                registers.orig_rax = static_cast<unsigned long long>(-1); // no call has this number
        }
        setRegisters(id, registers);
    }

    static void afterCall(pid_t id, Thread &thread)
    {
        if (thread.pending.error != 0 || thread.pending.length) {
            Registers registers = registersOf(id);
            if (thread.pending.error != 0)
                registers.rax = static_cast<unsigned long long>(-thread.pending.error);
            else
                argument(registers, thread.pending.call->lengthArgument) = *thread.pending.length;
            setRegisters(id, registers);
        }
        thread.pending = {};
    }

    std::vector<Fault> m_faults;
    pid_t m_command = 0;
    int m_status = 0;
    std::map<pid_t, Thread> m_threads;
    std::map<std::pair<std::string, std::string>, long> m_counts; // by program and call
    std::map<std::string, bool> m_killed; // programs that a fault killed
    std::map<std::string, int> m_signals; // that ended others
};

Fault parseFault(const std::string &text)
{
    std::vector<std::string> parts(1);
    for (const char character : text) {
        if (character == ':')
            parts.emplace_back();
        else
            parts.back() += character;
    }
    if (parts.size() != 4)
        errx(2, "'%s' is not PROGRAM:CALL:N:OUTCOME", text.c_str());
    Fault fault{text,
                parts[0],
                findCall(std::string_view(parts[1])),
                std::atol(parts[2].c_str()),
                parts[2].ends_with('+'),
                parts[3]};
    if (!fault.call)
        errx(2, "'%s': no such call is known", parts[1].c_str());
    if (fault.number < 1)
        errx(2, "'%s' is no count", parts[2].c_str());
    if (fault.outcome == "short" ? fault.call->lengthArgument < 0
                                 : fault.outcome != "kill" && errorNumber(fault.outcome) == 0)
        errx(2, "%s has no outcome '%s'", parts[1].c_str(), parts[3].c_str());
    return fault;
}

// Starts the command once it is traced.
pid_t start(char *command[])
{
    int gate[2];
    if (::pipe(gate) != 0)
        err(2, "pipe");
    const pid_t child = ::fork();
    if (child == 0) {
        char byte;
        ::close(gate[1]);
        [[maybe_unused]] const ssize_t opened = ::read(gate[0], &byte, 1);
        ::close(gate[0]);
        ::execvp(command[0], command);
        err(127, "%s", command[0]);
    }
    constexpr long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK
        | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
    if (child < 0 || ::ptrace(PTRACE_SEIZE, child, nullptr, options) != 0)
        err(2, "cannot trace");
    ::close(gate[0]);
    ::close(gate[1]);
    return child;
}

} // namespace

int main(int argc, char *argv[])
{
    char **const end = argv + argc;
    char **const bar = std::find_if(argv, end, [](const char *word) { return std::strcmp(word, "--") == 0; });
    if (bar - argv < 2 || end - bar < 2)
        errx(2, "usage: inject REPORT [PROGRAM:CALL:N[+]:OUTCOME...] -- COMMAND [ARGUMENT...]");
    std::vector<Fault> faults;
    for (char **word = argv + 2; word < bar; ++word)
        faults.push_back(parseFault(*word));
    std::FILE *const report = std::fopen(argv[1], "we");
    if (!report)
        err(2, "%s", argv[1]);
    Tracer tracer(std::move(faults));
    tracer.follow(start(bar + 1));
    tracer.report(report);
    if (std::fclose(report) != 0)
        err(2, "%s", argv[1]);
    return tracer.exitStatus();
}
