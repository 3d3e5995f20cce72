// A worker's trace file: one group of lines per message sent or received and
// per status change, written only while the application has a trace file
// open (enable_log). Each group starts with the local time and ends with the
// message in admin text, so that a person can follow a conversation.
#pragma once

#include <zel/types.h>

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

struct vartocb;

namespace zel {

class TraceFile {
public:
    TraceFile();
    ~TraceFile();
    TraceFile(const TraceFile &) = delete;
    TraceFile &operator=(const TraceFile &) = delete;

    // Opens `path` afresh ("w+"), closing any file open before; the
    // application thread opens and closes while the worker writes.
    void open(const std::string &path);
    void close();
    bool is_open() const;

    // ---- Worker thread ------------------------------------------------------
    void sent_message(std::string_view exchange, std::string_view routing_key, const char *body, int32_t len);
    // A bind (kind 1) or unbind (kind 2) the broker has taken.
    void sent_request(std::string_view exchange, int kind, std::string_view binding_key);
    void received_message(std::string_view exchange, std::string_view routing_key, const char *body, int32_t len);
    // A message that arrived on a ZeroMQ socket labelled `label`.
    void received_data(std::string_view label, const char *body, int32_t len);
    void status(std::string_view text, std::string_view detail = {});

private:
    // The message in `body` as admin text, in the second scratch buffer;
    // false (with the alert) when the group is not to be written at all.
    bool admin_text(const char *body, int32_t len);
    void exchange_group(char direction, std::string_view exchange, std::string_view key, const char *body,
                        int32_t len);
    void write_group(char direction, const std::string &head);
    static std::string time_stamp(char direction);

    mutable std::mutex lock_;
    FILE *file_ = nullptr;       // guarded by lock_
    scratchcb *body_ = nullptr;  // the message being shown
    scratchcb *admin_ = nullptr; // its admin text
    vartocb *parsed_ = nullptr;
};

} // namespace zel
