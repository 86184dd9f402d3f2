// Singly linked lists of heap records (policies, ACEs, and later SAs and
// cipher records), newest first. A list owns its head, every node owns its
// successor; nodes are found by identity (address), never by content.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "base/log.h"

namespace cpa {

// The 32-bit form of an address used in log lines.
inline unsigned log_addr(const void* p) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// A new zero-filled record, or null when memory is exhausted.
template <class T>
std::unique_ptr<T> new_record() {
  return std::unique_ptr<T>(new (std::nothrow) T());
}

// Base of every list record.
template <class Node>
struct ListNode {
  ListNode() = default;
  ListNode(const ListNode&) = delete;
  ListNode& operator=(const ListNode&) = delete;
  // Releases the tail one node at a time so that a long list cannot exhaust
  // the stack through nested destructors.
  ~ListNode() {
    while (next) next = std::move(next->next);
  }

  std::unique_ptr<Node> next;
};

template <class Node>
class ObjectList {
 public:
  template <class T>
  class Iterator {
   public:
    explicit Iterator(T* node) : node_(node) {}
    T& operator*() const { return *node_; }
    T* operator->() const { return node_; }
    Iterator& operator++() {
      node_ = node_->next.get();
      return *this;
    }
    bool operator==(const Iterator&) const = default;

   private:
    T* node_;
  };

  Node* head() const { return head_.get(); }
  bool empty() const { return !head_; }
  size_t size() const { return size_; }
  Iterator<Node> begin() { return Iterator<Node>(head_.get()); }
  Iterator<Node> end() { return Iterator<Node>(nullptr); }
  Iterator<const Node> begin() const { return Iterator<const Node>(head_.get()); }
  Iterator<const Node> end() const { return Iterator<const Node>(nullptr); }

  // Puts `node` at the head; 1 when there is no node.
  int insert_node(std::unique_ptr<Node> node) {
    if (!node) {
      cpa_log(LOG_DEBUG, "ERROR: insert node 0x%x", 0u);
      return 1;
    }
    node->next = std::move(head_);
    head_ = std::move(node);
    ++size_;
    return 0;
  }

  // Takes `node` out of the list and hands it back; null, with the list
  // unchanged, when the list is empty, `node` is null or not in the list.
  std::unique_ptr<Node> unlink_node(const Node* node) {
    if (!head_ || !node) {
      cpa_log(LOG_ERR, "NULL pointer(s) passed");
      return nullptr;
    }
    std::unique_ptr<Node>* link = &head_;
    while (*link && link->get() != node) link = &(*link)->next;
    if (!*link) {
      cpa_log(LOG_ERR, "Node to delete not found 0x%x", log_addr(node));
      return nullptr;
    }
    std::unique_ptr<Node> unlinked = std::move(*link);
    *link = std::move(unlinked->next);
    --size_;
    return unlinked;
  }

  // Releases every node for which `doomed(node)` holds; gives their number.
  template <class Pred>
  size_t release_if(Pred doomed) {
    size_t released = 0;
    for (std::unique_ptr<Node>* link = &head_; *link;) {
      if (!doomed(**link)) {
        link = &(*link)->next;
        continue;
      }
      std::unique_ptr<Node> gone = std::move(*link);
      *link = std::move(gone->next);
      ++released;
    }
    size_ -= released;
    return released;
  }

  void clear() {
    head_.reset();
    size_ = 0;
  }

 private:
  std::unique_ptr<Node> head_;
  size_t size_ = 0;
};

// Whether `list` takes one more node under `cap`. When it does not, one
// LOG_ERR line names the request, the tunnel and the full list.
template <class Node>
bool has_room(const ObjectList<Node>& list, size_t cap, const char* request, uint32_t slot,
              const char* what) {
  if (list.size() < cap) return true;
  cpa_log(LOG_ERR, "%s: tunnel %u holds %zu %s, the most it may; request refused", request, slot,
          list.size(), what);
  return false;
}

// Dotted text of a host-order IPv4 address, three digits per octet
// ("010.000.000.001"): always 15 characters and the terminator.
const char* kestrix_num2ip4(uint32_t ip, char (&buf)[16]);

}  // namespace cpa
