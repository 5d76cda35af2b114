// The identifiers that engines know each other by: a device's MAC address, an engine's own identity, and the context
// that two engines share. All three are plain bytes with no alignment of their own, so that they stand anywhere inside
// the fixed-layout records of RE_stat_records.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// A MAC address as records hold it: six bytes in transmission order.
struct RE_mac_id_t
{
    unsigned char m_data[6];
};

// A MAC address that can be parsed, compared and printed.
class RE_mac_id : public RE_mac_id_t
{
public:
    static constexpr std::size_t text_length = 17; // "00:11:22:33:44:55"

    // Leaves the bytes as they are, so that records which hold one can be zero-filled as a whole.
    RE_mac_id() = default;
    // bytes: at least six.
    explicit RE_mac_id(const unsigned char* bytes);
    RE_mac_id(const RE_mac_id_t& id);
    // All zero when the text is no MAC address; `set` tells the difference.
    explicit RE_mac_id(const char* str);

    // Reads "xx:xx:xx:xx:xx:xx" (17 characters at least, either case; what follows the sixth group is not looked at).
    // Returns false, changes nothing and reports to the system log when the text is null, too short or not of that
    // form.
    bool set(const char* str);
    void set(const RE_mac_id_t& id);

    // Writes the six bytes to `bytes`.
    void copy_to(unsigned char* bytes) const;
    // Below, equal to or above 0, byte by byte, as memcmp has it.
    int compare(const RE_mac_id_t& other) const;
    bool operator==(const RE_mac_id& other) const { return compare(other) == 0; }
    const unsigned char* data() const { return m_data; }

    // "aa:bb:cc:dd:ee:ff", always in lower case, 17 characters.
    std::string getString() const;
};

// An engine's identity as records hold it; the first six bytes are a MAC address of its device.
struct RE_kav_peer_id_t
{
    unsigned char m_data[16];
};

// An engine's identity that can be compared, hashed and printed.
class RE_kav_peer_id : public RE_kav_peer_id_t
{
public:
    static constexpr std::size_t text_length = 39; // "00:11:22:33:44:55-66778899aabb-ccddeeff"

    RE_kav_peer_id() = default;
    RE_kav_peer_id(const RE_kav_peer_id_t& id);

    // Writes the sixteen bytes to `bytes`.
    void copy_to(unsigned char* bytes) const;
    // Below, equal to or above 0, byte by byte, as memcmp has it.
    int compare(const RE_kav_peer_id_t& other) const;
    bool operator==(const RE_kav_peer_id& other) const { return compare(other) == 0; }
    bool operator!=(const RE_kav_peer_id& other) const { return compare(other) != 0; }
    const unsigned char* data() const { return m_data; }

    // Exclusive-or of the four little-endian 32-bit words.
    std::uint32_t hash_u32() const;
    // The low 16 bits of hash_u32: the number that reports print in brackets after the identity.
    std::uint16_t hash_u16() const;

    // Six bytes joined by colons, a dash, six bytes, a dash, four bytes; lower-case hexadecimal, 39 characters.
    std::string getString() const;
};

// What tells apart several contexts between the same two devices.
struct RE_param_id
{
    unsigned char m_data[8];
};

// The context that two engines share: the MAC addresses of both devices and a parameter id.
class RE_context_id
{
public:
    RE_context_id() = default;
    RE_context_id(const RE_mac_id& first, const RE_mac_id& second, const RE_param_id& param);

    bool operator==(const RE_context_id& other) const;

    // Exclusive-or of the ten little-endian 16-bit words.
    std::uint16_t hash() const;
    // Exclusive-or of the five little-endian 32-bit words.
    std::uint32_t hash32() const;
    // The number, 0 to 65535, that the peer report prints as "Context" and filters by.
    std::uint16_t context_number() const { return hash(); }

    // The device at the other end: when `known` is one of the context's two MAC addresses, puts the other one into
    // `other` and returns true; otherwise returns false and leaves `other` as it is.
    bool extract_mac_id(const RE_mac_id& known, RE_mac_id& other) const;

    unsigned char m_data[20];
};

static_assert(sizeof(RE_mac_id) == 6 && alignof(RE_mac_id) == 1);
static_assert(sizeof(RE_kav_peer_id) == 16 && alignof(RE_kav_peer_id) == 1);
static_assert(sizeof(RE_param_id) == 8 && alignof(RE_param_id) == 1);
static_assert(sizeof(RE_context_id) == 20 && alignof(RE_context_id) == 1);
