// Typed walks and links over the circular lists of the exported structures.
//
// An element's links are its first or only list; `Member` says where they lie. Unlinking leaves the element's own links
// as they were.
#pragma once

#include <cstddef>
#include <plx/cache.h>

namespace plx {

namespace list {

inline void reset(fp_udp_list &head)
{
    head.next = head.prev = &head;
}

inline bool empty(const fp_udp_list &head)
{
    return head.next == &head;
}

inline void link_between(fp_udp_list &element, fp_udp_list &prev, fp_udp_list &next)
{
    element.prev = &prev;
    element.next = &next;
    prev.next = &element;
    next.prev = &element;
}

inline void push_front(fp_udp_list &head, fp_udp_list &element)
{
    link_between(element, head, *head.next);
}

inline void push_back(fp_udp_list &head, fp_udp_list &element)
{
    link_between(element, *head.prev, head);
}

inline void unlink(fp_udp_list &element)
{
    element.prev->next = element.next;
    element.next->prev = element.prev;
}

} // namespace list

// The elements of a list whose links are their first member. The element at hand may be unlinked and freed; its
// neighbours may not.
template <class Element> class elements {
  public:
    explicit elements(const fp_udp_list &head) : head_(&head) { static_assert(offsetof(Element, links) == 0); }

    class iterator {
      public:
        explicit iterator(fp_udp_list *at) : at_(at), next_(at->next) {}
        Element &operator*() const { return *reinterpret_cast<Element *>(at_); }
        iterator &operator++()
        {
            at_ = next_;
            next_ = at_->next;
            return *this;
        }
        bool operator!=(const fp_udp_list *end) const { return at_ != end; }

      private:
        fp_udp_list *at_;
        fp_udp_list *next_;
    };

    iterator begin() const { return iterator(head_->next); }
    const fp_udp_list *end() const { return head_; }

  private:
    const fp_udp_list *head_;
};

} // namespace plx
