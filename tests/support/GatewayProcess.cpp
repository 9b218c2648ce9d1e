#include "tests/support/GatewayProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
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
constexpr int kCommandTimeoutMs = 10000;
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

std::vector<std::string> WithOurOptions(std::vector<std::string> arguments, const std::string& folder)
{
    if (std::ranges::find(arguments, "--address") == arguments.end())
        arguments.insert(arguments.end(), {"--address", "127.0.0.1", "--no-ssdp"});
    arguments.insert(arguments.begin(), ProgramPath());
    arguments.insert(arguments.end(),
                     {"--commands", "--log", folder + "/log", "--log-requests", folder + "/requests"});
    return arguments;
}

} // namespace

GatewayProcess::GatewayProcess(const std::vector<std::string>& arguments, Place place)
    : m_Folder(MakeFolder()), m_Process(WithOurOptions(arguments, m_Folder), place)
{
    std::istringstream words(m_Process.AwaitLine("ready", kStartTimeoutMs));
    for (std::string word; words >> word;) {
        if (word.starts_with("http://"))
            m_Urls.push_back(word);
    }
    if (!Started())
        ADD_FAILURE() << ProgramPath() << " did not start, exit status " << Stop();
}

GatewayProcess::~GatewayProcess()
{
    const bool running = m_Process.Running();
    if (const int status = Stop(); running && status != 0)
        ADD_FAILURE() << "the gateway ended with exit status " << status;
    std::error_code ignored;
    std::filesystem::remove_all(m_Folder, ignored);
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
    if (!m_Process.Write(line + "\n"))
        return false;

    const auto end = Clock::now() + std::chrono::milliseconds(kCommandTimeoutMs);
    while (Logged(obeyed) == obeyedBefore) {
        if (Logged(notUnderstood) > refusedBefore || Clock::now() > end)
            return false;
        std::this_thread::sleep_for(kLookAgain);
    }
    return true;
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

} // namespace tavronet
