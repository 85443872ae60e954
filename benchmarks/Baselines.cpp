#include "Baselines.h"

#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace baseline {

bool exists(const char *path)
{
    struct stat info;
    return ::stat(path, &info) == 0;
}

std::string firstLine(const char *path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    char buffer[512];
    const ssize_t size = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (size <= 0)
        return {};
    const void *end = std::memchr(buffer, '\n', static_cast<size_t>(size));
    return std::string(buffer, end ? static_cast<const char *>(end) - buffer : size);
}

std::string wholeFile(const char *path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string content;
    char buffer[4096];
    for (ssize_t size; (size = ::read(fd, buffer, sizeof buffer)) > 0;)
        content.append(buffer, static_cast<size_t>(size));
    ::close(fd);
    return content;
}

std::string iniValue(const char *path, const char *key)
{
    const std::string content = wholeFile(path);
    const std::string needle = std::string("\n") + key + "=";
    const size_t at = ("\n" + content).find(needle);
    if (at == std::string::npos)
        return "r";
    const size_t start = at + needle.size() - 1;
    return content.substr(start, content.find('\n', start) - start);
}

std::string jsonMember(const char *path, const char *section, const char *key)
{
    const std::string content = wholeFile(path);
    const size_t sectionAt = content.find(std::string("\"") + section + "\"");
    const size_t keyAt = content.find(std::string("\"") + key + "\"", sectionAt);
    if (sectionAt == std::string::npos || keyAt == std::string::npos)
        return "1000";
    const size_t open = content.find('"', content.find(':', keyAt) + 1);
    return content.substr(open + 1, content.find('"', open + 1) - open - 1);
}

std::string countedEntry(const char *path, int index)
{
    const std::string content = wholeFile(path);
    size_t start = 0;
    for (int line = 0; line <= index && start != std::string::npos; ++line)
        start = content.find('\n', start) + 1;
    return start == 0 ? std::string() : content.substr(start, content.find('\n', start) - start);
}

std::string spawnAndRead(const char *program, const std::vector<const char *> &arguments)
{
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return {};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    std::vector<char *> argv{const_cast<char *>(program)};
    for (const char *argument : arguments)
        argv.push_back(const_cast<char *>(argument));
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, program, &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    std::string output;
    char buffer[4096];
    for (ssize_t size; error == 0 && (size = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<size_t>(size));
    ::close(pipeFds[0]);
    if (error == 0)
        ::waitpid(pid, nullptr, 0);
    return output;
}

bool failedSpawn(const char *program)
{
    char *argv[] = {const_cast<char *>(program), nullptr};
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, program, nullptr, nullptr, argv, environ);
    if (error == 0)
        ::waitpid(pid, nullptr, 0);
    return error != 0;
}

} // namespace baseline
