// The keys that make two clients meet on a topic exchange. A message is
// published with a routing key of "^tag.value" pieces; a watch binds its
// queue with a key that holds its own pieces in tag order, with "#" between
// them, so that it matches every routing key that holds those pieces.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct vartocb;

namespace zel::amqp {

// "#.^3.*.#.^5.IBM.#" for the pairs (3, any value) and (5, IBM), given in
// ascending tag order; an empty value is the "*" wildcard.
std::string binding_key(const std::vector<int> &tags, const std::vector<std::string> &values);

// "^0.<name>": where requests for a service are published and bound.
std::string service_key(std::string_view name);

// Every item of the parsed message, in ascending tag order, as "^tag.value"
// pieces joined by "."; a piece that would make the key longer than 255
// characters ends it.
std::string routing_key_of(vartocb *message);

} // namespace zel::amqp
