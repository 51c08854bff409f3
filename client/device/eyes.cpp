// eyes.cpp - the root helper: questions and answers are one JSON line each.
#include "eyes.h"

#include "base/json.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>

namespace client {

namespace {

Json::Value answerTo(const Json::Value& question)
{
    if (question.isMember("lines")) {
        Json::Value lines(Json::arrayValue);
        for (const std::string& line : journalTail(question["lines"].asInt())) {
            lines.append(line);
        }
        return lines;
    }
    if (question.isMember("stopped")) {
        return isStopped(question["stopped"].asUInt());
    }
    if (question.isMember("pid")) {
        return packed(recordOf(question["pid"].asUInt()));
    }
    return packed(factsOf(question["bus"].asString(), question["timeout"].asDouble()));
}

Json::Value parsed(const std::string& line)
{
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    reader->parse(line.data(), line.data() + line.size(), &value, nullptr);
    return value;
}

/// @return a line of the channel; empty at its end
std::string readLine(int channel)
{
    std::string line;
    char letter = 0;
    for (;;) {
        const ssize_t count = read(channel, &letter, 1);
        if (count == 1 && letter == '\n') {
            return line;
        }
        if (count == 1) {
            line += letter;
        } else if (count == 0 || errno != EINTR) {
            return "";
        }
    }
}

void writeLine(int channel, const Json::Value& value)
{
    const std::string line = lineOf(value, true) + "\n";
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t count = send(channel, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return;
        }
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

[[noreturn]] void serve(int channel)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (std::string line = readLine(channel); !line.empty(); line = readLine(channel)) {
        Json::Value answer;
        try {
            answer = answerTo(parsed(line));
        } catch (const std::exception&) {
            answer = Json::Value();
        }
        writeLine(channel, answer);
    }
    _exit(0);
}

}  // namespace

Eyes::Eyes(bool ownProcess)
{
    int ends[2];
    if (!ownProcess || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return;
    }
    m_child = fork();
    if (m_child == 0) {
        close(ends[0]);
        serve(ends[1]);
    }
    close(ends[1]);
    if (m_child < 0) {
        close(ends[0]);
        return;
    }
    m_channel = ends[0];
}

Eyes::~Eyes()
{
    if (m_channel >= 0) {
        close(m_channel);
        waitpid(m_child, nullptr, 0);
    }
}

Json::Value Eyes::ask(const Json::Value& question) const
{
    if (m_channel < 0) {
        return answerTo(question);
    }
    writeLine(m_channel, question);
    return parsed(readLine(m_channel));
}

Facts Eyes::facts(const std::string& bus, double timeout) const
{
    Json::Value question;
    question["bus"] = bus;
    question["timeout"] = timeout;
    return unpacked(ask(question));
}

Record Eyes::record(unsigned pid) const
{
    Json::Value question;
    question["pid"] = pid;
    return recordFrom(ask(question));
}

bool Eyes::isStopped(unsigned pid) const
{
    Json::Value question;
    question["stopped"] = pid;
    return ask(question).asBool();
}

std::vector<std::string> Eyes::journalTail(int lines) const
{
    Json::Value question;
    question["lines"] = lines;
    std::vector<std::string> tail;
    for (const Json::Value& line : ask(question)) {
        tail.push_back(line.asString());
    }
    return tail;
}

}  // namespace client
