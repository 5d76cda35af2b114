// The identifiers of engines: a device's MAC address, an engine's identity, and the context that two engines share. All
// three are plain bytes that need no alignment, so they can be placed anywhere in the fixed-layout records of
// RE_stat_records.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// A MAC address as stored in records: six bytes in transmission order.
struct RE_mac_id_t
{
    unsigned char m_data[6];
};

// A MAC address that can be parsed, compared and printed.
class RE_mac_id : public RE_mac_id_t
{
public:
    static constexpr std::size_t text_length = 17; // "00:11:22:33:44:55"

    // Leaves the bytes uninitialized, so that a record that contains one can be zero-filled as a whole.
    RE_mac_id() = default;
    // bytes: six bytes in transmission order.
    explicit RE_mac_id(const unsigned char* bytes);
    RE_mac_id(const RE_mac_id_t& id);
    // An invalid text gives all zeros; use `set` to detect it.
    explicit RE_mac_id(const char* str);

    // Parses "xx:xx:xx:xx:xx:xx" (at least 17 characters, either case; text after the sixth group is ignored). When the
    // text is null, too short or malformed, returns false, changes nothing and logs an error.
    bool set(const char* str);
    void set(const RE_mac_id_t& id);

    // Writes the six bytes to `bytes`.
    void copy_to(unsigned char* bytes) const;
    // Compares byte by byte. Returns a value below, equal to or above 0, as memcmp does.
    int compare(const RE_mac_id_t& other) const;
    bool operator==(const RE_mac_id& other) const { return compare(other) == 0; }
    const unsigned char* data() const { return m_data; }

    // Returns "aa:bb:cc:dd:ee:ff": 17 characters, always in lower case.
    std::string getString() const;
};

// An engine's identity as stored in records; the first six bytes are a MAC address of its device.
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
    // Compares byte by byte. Returns a value below, equal to or above 0, as memcmp does.
    int compare(const RE_kav_peer_id_t& other) const;
    bool operator==(const RE_kav_peer_id& other) const { return compare(other) == 0; }
    bool operator!=(const RE_kav_peer_id& other) const { return compare(other) != 0; }
    const unsigned char* data() const { return m_data; }

    // Returns the exclusive-or of the four little-endian 32-bit words.
    std::uint32_t hash_u32() const;
    // Returns the low 16 bits of hash_u32, which reports print in brackets after the identity.
    std::uint16_t hash_u16() const;

    // Returns 39 characters of lower-case hexadecimal: six bytes joined by colons, a dash, six bytes, a dash, four
    // bytes.
    std::string getString() const;
};

// Distinguishes several contexts between the same two devices.
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

    // Returns the exclusive-or of the ten little-endian 16-bit words.
    std::uint16_t hash() const;
    // Returns the exclusive-or of the five little-endian 32-bit words.
    std::uint32_t hash32() const;
    // Returns the number, 0 to 65535, that the peer report prints as "Context" and filters by.
    std::uint16_t context_number() const { return hash(); }

    // Finds the device at the other end. When `known` is one of the context's two MAC addresses, stores the other one
    // in `other` and returns true. Otherwise returns false and leaves `other` unchanged.
    bool extract_mac_id(const RE_mac_id& known, RE_mac_id& other) const;

    unsigned char m_data[20];
};

static_assert(sizeof(RE_mac_id) == 6 && alignof(RE_mac_id) == 1);
static_assert(sizeof(RE_kav_peer_id) == 16 && alignof(RE_kav_peer_id) == 1);
static_assert(sizeof(RE_param_id) == 8 && alignof(RE_param_id) == 1);
static_assert(sizeof(RE_context_id) == 20 && alignof(RE_context_id) == 1);
