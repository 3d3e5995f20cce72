// zel addrbk: reads, files and removes entries of the address book that the
// hub keeps.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "cli.h"
#include "connection.h"

namespace zelcli {

namespace {

struct AddrbkOptions {
    std::string action, key, address, service;
};

std::string failure_text(uint32_t detail, const AddrbkOptions &o)
{
    switch (detail) {
    case 3:
        return "no entry for '" + o.key + "'";
    case 4:
        return "no reply from the address book at " + o.service;
    case 7:
    case 31:
    case 32:
    case 33:
        return "cannot reach the address book at " + o.service;
    default:
        return "the address book at " + o.service + " failed (detail " + std::to_string(detail) + ")";
    }
}

int run_addrbk(AddrbkOptions o)
{
    if (o.service.empty() && std::getenv("ZEL_HUB"))
        o.service = std::getenv("ZEL_HUB");
    if (o.service.empty())
        throw UsageError("give the address book with --addrbk HOST:PORT (or PL_LOC_BROK_ADDR)");
    parse_endpoint(o.service, "--addrbk");
    if ((o.action == "set") == o.address.empty())
        throw UsageError(o.action == "set" ? "zel addrbk set wants KEY ADDRESS"
                                           : "zel addrbk " + o.action + " wants KEY alone");
    sPChar key{o.key.data(), int32_t(o.key.size())}, service{o.service.data(), int32_t(o.service.size())},
        address{o.address.data(), int32_t(o.address.size())};
    uint32_t err = 0;
    if (o.action == "get") {
        // Lookups find the address book through the environment.
        ::setenv("PL_LOC_BROK_ADDR", o.service.c_str(), 1);
        sPChar found[2] = {};
        if (!p_addr_local_addrbk_lookup(&key, found, &err))
            throw Failure(failure_text(err, o));
        std::printf("%.*s\n", found[0].len, found[0].data ? found[0].data : "");
        pchar_destroy_mem(&found[0], nullptr);
    } else if (o.action == "set") {
        if (!p_addr_update_addrbk(&key, nullptr, &service, &address, nullptr, &err))
            throw Failure(failure_text(err, o));
    } else if (!p_addr_remove_addrbk(&key, nullptr, &service, &err)) {
        throw Failure(failure_text(err, o));
    }
    return 0;
}

} // namespace

Command add_addrbk(CLI::App &zel)
{
    auto o = std::make_shared<AddrbkOptions>();
    CLI::App *app = zel.add_subcommand("addrbk", "Look up (get), file (set) or remove (rm) an address book entry.");
    app->add_option("action", o->action, "get, set or rm")->required()->check(CLI::IsMember({"get", "set", "rm"}));
    app->add_option("key", o->key, "the entry's name")->required();
    app->add_option("address", o->address, "the address to file (set)");
    app->add_option("--addrbk,--hub", o->service,
                    "the address book (the hub keeps it) at HOST:PORT; default PL_LOC_BROK_ADDR, then ZEL_HUB")
        ->envname("PL_LOC_BROK_ADDR");
    return {app, [o] { return run_addrbk(*o); }};
}

} // namespace zelcli
