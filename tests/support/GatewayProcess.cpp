#include "tests/support/GatewayProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <thread>

namespace tavronet
{

namespace
{

constexpr int kTimeoutMs = 20000; // a sanitized program on a busy machine

bool Await(const std::function<bool()>& done, int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
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
    const char* const program = std::getenv("TAVRONET_GATEWAY_BIN");
    arguments.insert(arguments.begin(),
                     program != nullptr ? program : TAVRONET_TEST_BINARY_DIR "/bin/tavronet-gateway");
    arguments.insert(arguments.end(),
                     {"--commands", "--log", folder + "/log", "--log-requests", folder + "/requests"});
    return arguments;
}

} // namespace

GatewayProcess::GatewayProcess(const std::vector<std::string>& arguments, Place place)
    : m_Folder(MakeFolder()), m_Process(WithOurOptions(arguments, m_Folder), place)
{
    std::istringstream words(m_Process.AwaitLine("ready", kTimeoutMs));
    for (std::string word; words >> word;) {
        if (word.starts_with("http://"))
            m_Urls.push_back(word);
    }
    if (!Started())
        ADD_FAILURE() << "the gateway did not start, exit status " << m_Process.Stop();
}

GatewayProcess::~GatewayProcess()
{
    const bool running = m_Process.Running();
    if (const int status = m_Process.Stop(); running && status != 0)
        ADD_FAILURE() << "the gateway ended with exit status " << status;
    std::error_code ignored;
    std::filesystem::remove_all(m_Folder, ignored);
}

unsigned GatewayProcess::Port() const
{
    const std::string url = Url();
    return url.empty() ? 0 : static_cast<unsigned>(std::stoi(url.substr(url.rfind(':') + 1)));
}

bool GatewayProcess::Command(const std::string& line)
{
    const std::string obeyed = "command " + line, notUnderstood = "command not understood: " + line;
    const int obeyedBefore = Logged(obeyed), refusedBefore = Logged(notUnderstood);
    if (!m_Process.Write(line + "\n"))
        return false;

    return Await([&] { return Logged(obeyed) > obeyedBefore || Logged(notUnderstood) > refusedBefore; },
                 kTimeoutMs) &&
           Logged(notUnderstood) == refusedBefore;
}

int GatewayProcess::Logged(std::string_view text) const
{
    int count = 0;
    std::istringstream log(Content(m_Folder + "/log"));
    for (std::string line; std::getline(log, line);)
        count += line.find(text) != std::string::npos;
    return count;
}

bool GatewayProcess::WaitForLog(std::string_view text, int count, int timeoutMs) const
{
    return Await([&] { return Logged(text) >= count; }, timeoutMs);
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
