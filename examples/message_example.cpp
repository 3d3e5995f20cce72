// Builds a message, prints its admin text, parses it back and reads a field.
// Compile with: g++ -std=c++20 message_example.cpp -Iinclude -Lbuild -lzel
#include <zel/zel.h>

#include <cstdio>
#include <cstring>

int main()
{
    int err = 0;
    vartocb *msg = nullptr;
    scratchcb *wire = nullptr, *text = nullptr;
    if (!zel_ctor_vartocb(&msg, &err) || !zel_open_scratch(&wire, 256, &err) || !zel_open_scratch(&text, 256, &err)) {
        std::fprintf(stderr, "set-up failed, detail %d\n", err);
        return 1;
    }

    // Build: a header, then fields; a field may carry several items.
    sPChar symbol{const_cast<char *>("EURUSD"), 6};
    sPChar prices[] = {{const_cast<char *>("1.0841"), 6}, {const_cast<char *>("1.0843"), 6}};
    sPChar note{const_cast<char *>("it's firm"), 9};
    zel_start_msg(msg, wire, &err);
    zel_add_data(msg, 55, 1, &symbol, &err);
    zel_add_data(msg, 44, 2, prices, &err);
    zel_add_data(msg, 58, 1, &note, &err);

    varto_to_admin(msg, text, &err);
    std::printf("admin text: %.*s\n", text->len, text->data);

    // Parse the wire bytes in place and read the second price.
    vartocb *parsed = nullptr;
    zel_ctor_vartocb(&parsed, &err);
    sPChar price;
    int count = 0;
    if (!zel_parse_msg(parsed, wire, &err) || !zel_get_field(parsed, 44, &count, &err) ||
        !zel_get_data(parsed, 44, 1, &price, &err)) {
        std::fprintf(stderr, "parse failed, detail %d\n", err);
        return 1;
    }
    std::printf("%d bytes on the wire; field 44 has %d items, the second is %.*s\n", wire->len, count, price.len,
                price.data);

    bool as_built = std::strncmp(price.data, "1.0843", 6) == 0;

    zel_dtor_vartocb(&parsed, &err);
    zel_dtor_vartocb(&msg, &err);
    zel_close_scratch(&wire, &err);
    zel_close_scratch(&text, &err);
    return as_built ? 0 : 1;
}
