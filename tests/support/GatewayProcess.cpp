#include "tests/support/GatewayProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace tavronet
{

namespace
{

using Clock = std::chrono::steady_clock;
constexpr int kStartTimeoutMs = 20000; // a sanitized program on a busy machine
constexpr int kStopTimeoutMs = 10000;
constexpr std::chrono::milliseconds kLookAgain{5};

std::string ProgramPath()
{
    const char* const given = std::getenv("TAVRONET_GATEWAY_BIN");
    return given != nullptr ? given : TAVRONET_TEST_BINARY_DIR "/bin/tavronet-gateway";
}

std::string Content(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string MakeFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "tavronet-gateway.XXXXXX").string();
    return ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
}

std::string GatewayNamespacePath()
{
    const char* const pid = std::getenv("TAVRONET_LAN_GATEWAY_PID");
    return pid != nullptr ? "/proc/" + std::string(pid) + "/ns/net" : "";
}

/// In the child, between fork and exec: only calls that are safe there.
[[noreturn]] void BecomeGateway(char** arguments, int input, int output, const char* networkNamespace)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    if (*networkNamespace != '\0') {
        const int descriptor = ::open(networkNamespace, O_RDONLY | O_CLOEXEC);
        if (descriptor < 0 || ::setns(descriptor, CLONE_NEWNET) != 0)
            ::_exit(126);
    }
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

} // namespace

GatewayProcess::GatewayProcess(std::vector<std::string> arguments, Place place) : m_Folder(MakeFolder())
{
    if (std::ranges::find(arguments, "--address") == arguments.end())
        arguments.insert(arguments.end(), {"--address", "127.0.0.1", "--no-ssdp"});
    arguments.insert(arguments.begin(), ProgramPath());
    arguments.insert(arguments.end(),
                     {"--commands", "--log", m_Folder + "/log", "--log-requests", m_Folder + "/requests"});
    Start(arguments, place);
    if (!AwaitReady())
        ADD_FAILURE() << arguments[0] << " did not start, exit status " << Stop();
}

GatewayProcess::~GatewayProcess()
{
    const bool running = m_Pid > 0;
    if (const int status = Stop(); running && status != 0)
        ADD_FAILURE() << "the gateway ended with exit status " << status;
    std::error_code ignored;
    std::filesystem::remove_all(m_Folder, ignored);
}

void GatewayProcess::Start(const std::vector<std::string>& arguments, Place place)
{
    const std::string networkNamespace = place == Place::GatewayOfLan ? GatewayNamespacePath() : "";
    std::vector<char*> raw;
    for (const std::string& argument : arguments)
        raw.push_back(const_cast<char*>(argument.c_str()));
    raw.push_back(nullptr);

    // A socket and not a pipe: writing to a gateway that has died must not end the test by a signal.
    int input[2], output[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0)
        return;
    m_Input = input[1];
    if (::pipe2(output, O_CLOEXEC) == 0) {
        m_Output = output[0];
        m_Pid = ::fork();
        if (m_Pid == 0)
            BecomeGateway(raw.data(), input[0], output[1], networkNamespace.c_str());
        ::close(output[1]);
    }
    ::close(input[0]);
}

bool GatewayProcess::AwaitReady()
{
    const auto end = Clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
    std::string text;
    while (m_Pid > 0 && text.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd waiting{m_Output, POLLIN, 0};
        char buffer[512];
        if (left <= 0 || ::poll(&waiting, 1, static_cast<int>(left)) <= 0)
            return false;
        const ssize_t got = ::read(m_Output, buffer, sizeof buffer);
        if (got <= 0)
            return false;
        text.append(buffer, static_cast<std::size_t>(got));
    }
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (word.starts_with("http://"))
            m_Urls.push_back(word);
    }
    return Started();
}

std::string GatewayProcess::Url(std::size_t n) const
{
    return n < m_Urls.size() ? m_Urls[n] : "";
}

unsigned GatewayProcess::Port() const
{
    const std::string url = Url();
    const std::size_t colon = url.find(':', url.find(']') == std::string::npos ? 7 : url.find(']'));
    return colon == std::string::npos ? 0 : static_cast<unsigned>(std::atoi(url.c_str() + colon + 1));
}

bool GatewayProcess::Command(const std::string& line)
{
    const std::string obeyed = "command " + line, notUnderstood = "command not understood: " + line;
    const int obeyedBefore = Logged(obeyed), refusedBefore = Logged(notUnderstood);
    const std::string text = line + "\n";
    if (::send(m_Input, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        return false;

    const auto end = Clock::now() + std::chrono::milliseconds(kStopTimeoutMs);
    while (Logged(obeyed) == obeyedBefore) {
        if (Logged(notUnderstood) > refusedBefore || Clock::now() > end)
            return false;
        std::this_thread::sleep_for(kLookAgain);
    }
    return true;
}

void GatewayProcess::Signal(int number) const
{
    if (m_Pid > 0)
        ::kill(m_Pid, number);
}

std::vector<std::string> GatewayProcess::Log() const
{
    std::vector<std::string> lines;
    std::istringstream text(Content(m_Folder + "/log"));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

int GatewayProcess::Logged(std::string_view text) const
{
    const auto lines = Log();
    return static_cast<int>(std::ranges::count_if(
        lines, [text](const std::string& line) { return line.find(text) != std::string::npos; }));
}

bool GatewayProcess::WaitForLog(std::string_view text, int count, int timeoutMs) const
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Logged(text) < count) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(kLookAgain);
    }
    return true;
}

std::vector<GatewayRequest> GatewayProcess::Requests() const
{
    // Each stands behind a line "=== KIND PEER LENGTH" and is followed by a line feed.
    std::vector<GatewayRequest> requests;
    std::istringstream text(Content(m_Folder + "/requests"));
    std::string mark;
    GatewayRequest request;
    std::size_t length = 0;
    while (text >> mark >> request.kind >> request.peer >> length) {
        text.get();
        request.bytes.resize(length);
        text.read(request.bytes.data(), static_cast<std::streamsize>(length));
        if (!text)
            break; // the gateway is just writing it
        requests.push_back(request);
    }
    return requests;
}

int GatewayProcess::Stop()
{
    Signal(SIGTERM);
    const int status = m_Pid > 0 ? Collect(kStopTimeoutMs) : -1;
    for (const int descriptor : {m_Input, m_Output}) {
        if (descriptor >= 0)
            ::close(descriptor);
    }
    m_Pid = m_Input = m_Output = -1;
    return status;
}

int GatewayProcess::Collect(int timeoutMs)
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (::waitpid(m_Pid, &status, WNOHANG) == 0) {
        if (Clock::now() > end)
            Signal(SIGKILL);
        std::this_thread::sleep_for(kLookAgain);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace tavronet
