#include "message_kind.h"

namespace zelhub {

MessageKind kind_of(const vartocb *m)
{
    if (has_field(m, field::name)) {
        std::string_view name = first_value(m, field::name);
        if (name == "set_device_aka")
            return MessageKind::device_name;
        if (name == "varto_heartbeat")
            return MessageKind::heartbeat;
        if (name == "subscribe")
            return MessageKind::subscribe;
        if (name == "unsubscribe")
            return MessageKind::unsubscribe;
        if (name == "mrv_ab")
            return MessageKind::address_lookup;
        if (name == "mrv_lb_set_info")
            return MessageKind::address_set;
        if (name == "mrv_lb_unset_info")
            return MessageKind::address_unset;
    }
    // A reply may carry a name as well; the reply field is what makes it one.
    if (has_field(m, field::reply))
        return MessageKind::reply;
    return has_field(m, field::name) ? MessageKind::request : MessageKind::data;
}

} // namespace zelhub
