// ZeroMQ prefix filters. A subscriber receives every message whose first
// frame starts with one of its filters; a publisher's first frame is the
// topic of "^tag.value." pieces of every field in ascending tag order. So a
// watch whose pairs are given in ascending tag order, with nothing skipped
// between them, is a prefix of the topic of every message it should match.
#pragma once

#include <string>
#include <string_view>

struct sPChar;
struct vartocb;

namespace zel::zmq {

// A watch's filter: its pairs in the order given, each "^tag.value." or
// "^tag." for an empty value, with nothing between them; a pair of field 0
// with an empty value adds nothing.
std::string watch_filter(const int *tags, const sPChar *values, int count);

// The key RemoveWatch looks a watch up by: pieces "^tag.value" (or nothing
// for an empty value) joined by ".". It ends without the "." that every
// piece of a watch filter ends with, so it finds only a watch that
// subscribed nothing.
std::string removal_key(const int *tags, const sPChar *values, int count);

// "^0.<name>": the prefix of every request for a service.
std::string service_filter(std::string_view name);

// The topic a publisher sends a parsed message under: "^tag.value." for
// every item, in ascending tag order.
std::string topic_of(vartocb *message);

} // namespace zel::zmq
