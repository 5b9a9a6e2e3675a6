#include "node_memory.h"

#include <malloc.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "vornlib/time.h"

namespace vorn::launch {
namespace {

// The unused part of a block is not touched and therefore uses no memory.
constexpr size_t kNodesPerBlock = 256;
std::byte* block = nullptr;
size_t nodes_in_block = kNodesPerBlock;

/// The memory of a destroyed node.
struct FreePlace {
  FreePlace* next;
};
FreePlace* free_places = nullptr;

/// Texts and lists that are being moved in memory.
class Parcel {
 public:
  void put(const std::string& text) {
    putSize(text.size());
    bytes_ += text;
  }
  void put(const std::vector<std::string>& texts) {
    putSize(texts.size());
    for (const std::string& text : texts) put(text);
  }
  void put(const Environment& environment) {
    putSize(environment.size());
    for (const auto& [variable, value] : environment) {
      put(variable);
      put(value);
    }
  }

  // In the order in which they were put.
  void take(std::string& text) {
    const size_t size = takeSize();
    text = std::string(bytes_, read_, size);
    read_ += size;
  }
  void take(std::vector<std::string>& texts) {
    texts = std::vector<std::string>(takeSize());
    for (std::string& text : texts) take(text);
  }
  void take(Environment& environment) {
    environment = Environment(takeSize());
    for (auto& [variable, value] : environment) {
      take(variable);
      take(value);
    }
  }

 private:
  void putSize(size_t size) {
    bytes_.append(reinterpret_cast<const char*>(&size), sizeof(size));
  }
  size_t takeSize() {
    size_t size = 0;
    std::memcpy(&size, bytes_.data() + read_, sizeof(size));
    read_ += sizeof(size);
    return size;
  }

  std::string bytes_;
  size_t read_ = 0;
};

template <typename T>
void moveInto(Parcel& parcel, T& content) {
  parcel.put(content);
  T().swap(content);  // clear() would keep the memory
}

}  // namespace

void* allocateNode() {
  if (FreePlace* const place = free_places; place != nullptr) {
    free_places = place->next;
    return place;
  }
  if (nodes_in_block == kNodesPerBlock) {
    static_assert(alignof(Node) <= alignof(std::max_align_t));
    block =
        static_cast<std::byte*>(::operator new(kNodesPerBlock * sizeof(Node)));
    nodes_in_block = 0;
  }
  return block + nodes_in_block++ * sizeof(Node);
}

void deallocateNode(void* memory) noexcept {
  free_places = new (memory) FreePlace{free_places};
}

void packNodes(const std::vector<std::unique_ptr<Node>>& nodes) {
  {
    Parcel parcel;
    for (const auto& node : nodes) {
      moveInto(parcel, node->name);
      moveInto(parcel, node->argv);
      moveInto(parcel, node->required);
      moveInto(parcel, node->environment);
    }
    // Merges adjacent free pieces; otherwise the texts would fill the small
    // ones all over the heap.
    (void)::malloc_trim(0);
    for (const auto& node : nodes) {
      parcel.take(node->name);
      parcel.take(node->argv);
      parcel.take(node->required);
      parcel.take(node->environment);
    }
  }
  (void)::malloc_trim(0);
}

}  // namespace vorn::launch
