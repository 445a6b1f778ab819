// Walks over a document's records, and changes the links between them. No function recurses, so a document may be of
// any depth.
#pragma once

#include <cstdint>

#include "markup/ElemPosTree.h"

namespace qx::markup {

// The next element after `elem` and all its descendants; 0 at the end of the document.
inline std::uint32_t NextAfter(const ElemPosTree& tree, std::uint32_t elem) {
  while (elem != 0 && tree[elem].next == 0) elem = tree[elem].parent;
  return elem == 0 ? 0 : tree[elem].next;
}

// The next element in the order of the start tags; the root if `elem` is 0; 0 at the end of the document.
inline std::uint32_t NextInText(const ElemPosTree& tree, std::uint32_t elem) {
  if (tree[elem].first_child != 0) return tree[elem].first_child;
  return NextAfter(tree, elem);
}

// Calls visit(index) for each element of a subtree, `top` included, in the order of the start tags.
template <typename Visit>
void ForEachInSubtree(const ElemPosTree& tree, std::uint32_t top, Visit visit) {
  std::uint32_t elem = top;
  for (;;) {
    visit(elem);
    if (tree[elem].first_child != 0) {
      elem = tree[elem].first_child;
      continue;
    }
    while (elem != top && tree[elem].next == 0) elem = tree[elem].parent;
    if (elem == top) return;
    elem = tree[elem].next;
  }
}

inline std::uint32_t LastChild(const ElemPosTree& tree, std::uint32_t parent) {
  const std::uint32_t first = tree[parent].first_child;
  return first == 0 ? 0 : tree[first].previous;
}

// The sibling before `elem`; 0 for a first child.
inline std::uint32_t PreviousSibling(const ElemPosTree& tree, std::uint32_t elem) {
  return tree[elem].Has(kElemFirst) ? 0 : tree[elem].previous;
}

// Makes `elem`, which has no links yet, the first child of `parent`.
inline void LinkFirst(ElemPosTree& tree, std::uint32_t parent, std::uint32_t elem) {
  const std::uint32_t next = tree[parent].first_child;
  tree[elem].next = next;
  tree[elem].previous = next == 0 ? elem : tree[next].previous;
  tree[elem].Set(kElemFirst);
  if (next != 0) {
    tree[next].previous = elem;
    tree[next].Clear(kElemFirst);
  }
  tree[parent].first_child = elem;
}

// Makes `elem`, which has no links yet, the next sibling of `previous`.
inline void LinkAfter(ElemPosTree& tree, std::uint32_t previous, std::uint32_t elem) {
  const std::uint32_t next = tree[previous].next;
  tree[previous].next = elem;
  tree[elem].previous = previous;
  tree[elem].next = next;
  tree[next != 0 ? next : tree[tree[elem].parent].first_child].previous = elem;
}

// Removes an element, with its descendants, from the list of its siblings.
inline void Unlink(ElemPosTree& tree, std::uint32_t elem) {
  const ElemPos& record = tree[elem];
  const bool first = record.Has(kElemFirst);
  if (first) {
    tree[record.parent].first_child = record.next;
    if (record.next != 0) tree[record.next].Set(kElemFirst);
  } else {
    tree[record.previous].next = record.next;
  }
  const std::uint32_t first_sibling = tree[record.parent].first_child;
  if (first_sibling != 0) tree[record.next != 0 ? record.next : first_sibling].previous = record.previous;
}

}  // namespace qx::markup
