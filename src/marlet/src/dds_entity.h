#pragma once
// RAII ownership of Cyclone DDS entities and the one place where DDS return
// codes become exceptions.

#include <string>
#include <utility>

#include <dds/dds.h>

#include "marlet/marlet.h"

namespace com::quorixtech::marlet::detail {

// Returns rc when it is not an error; throws DdsError naming the call otherwise.
inline dds_return_t check(dds_return_t rc, const char *call) {
    if (rc < 0) throw DdsError(call, rc);
    return rc;
}

// Owns one entity handle; deleting an entity deletes its children, so owners
// are declared parent first and destroyed children first.
class Entity {
  public:
    Entity() = default;
    explicit Entity(dds_entity_t handle) : handle_(handle) {}
    Entity(dds_entity_t handle, const char *call) : handle_(check(handle, call)) {}
    ~Entity() { reset(); }
    Entity(const Entity &) = delete;
    Entity &operator=(const Entity &) = delete;
    Entity(Entity &&other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
    Entity &operator=(Entity &&other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, 0);
        }
        return *this;
    }

    dds_entity_t get() const { return handle_; }
    explicit operator bool() const { return handle_ > 0; }
    // An entity whose parent went first is already gone: that result is expected and ignored.
    void reset() {
        if (handle_ > 0) (void)dds_delete(handle_);
        handle_ = 0;
    }

  private:
    dds_entity_t handle_ = 0;
};

// Owns a QoS object.
class Qos {
  public:
    Qos() : qos_(dds_create_qos()) {}
    ~Qos() { dds_delete_qos(qos_); }
    Qos(const Qos &) = delete;
    Qos &operator=(const Qos &) = delete;
    dds_qos_t *get() const { return qos_; }

  private:
    dds_qos_t *qos_;
};

} // namespace com::quorixtech::marlet::detail
