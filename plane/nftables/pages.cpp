// See pages.hpp.
#include "plane/nftables/pages.hpp"

#include <algorithm>
#include <iterator>
#include <set>

namespace plx::plane::nftables {

namespace {

bool before(const EntryPointer &one, const EntryPointer &other)
{
    return one->position < other->position;
}

// What comes to a page and what leaves it.
struct Movement {
    std::vector<EntryPointer> come; // in order
    std::set<const Entry *> leave;
};

// The page whose entries stand around a position.
size_t page_of(const List &list, const Position &position)
{
    const auto behind = std::upper_bound(
        list.pages.begin(), list.pages.end(), position,
        [](const Position &at, const PagePointer &page) { return at < page->entries.front()->position; });
    return behind == list.pages.begin() ? 0 : static_cast<size_t>(behind - list.pages.begin() - 1);
}

std::map<size_t, Movement> movements(const List &list, const std::map<uint64_t, EntryPointer> &entries,
                                     const Changed &changed)
{
    std::map<size_t, Movement> all;
    for (const auto &[sn, entry] : changed) {
        if (const auto old = entries.find(sn); old != entries.end() && old->second->rules != 0)
            all[page_of(list, old->second->position)].leave.insert(old->second.get());
        if (entry != nullptr && entry->rules != 0)
            all[page_of(list, entry->position)].come.push_back(entry);
    }
    for (auto &[page, movement] : all)
        std::sort(movement.come.begin(), movement.come.end(), before);
    return all;
}

std::vector<EntryPointer> moved(const std::vector<EntryPointer> &entries, const Movement &movement)
{
    std::vector<EntryPointer> stay, result;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(stay),
                 [&](const EntryPointer &entry) { return !movement.leave.contains(entry.get()); });
    std::merge(stay.begin(), stay.end(), movement.come.begin(), movement.come.end(), std::back_inserter(result),
               before);
    return result;
}

size_t shared(const std::vector<EntryPointer> &piece, const Page *page)
{
    if (page == nullptr)
        return 0;
    const auto is_old = [&](const EntryPointer &entry) {
        return std::binary_search(page->entries.begin(), page->entries.end(), entry, before);
    };
    return static_cast<size_t>(std::count_if(piece.begin(), piece.end(), is_old));
}

// Pieces of page_size, or all of it while that is not too much.
std::vector<std::vector<EntryPointer>> pieces_of(std::vector<EntryPointer> entries)
{
    std::vector<std::vector<EntryPointer>> pieces;
    if (entries.empty())
        return pieces;
    if (entries.size() <= largest_page) {
        pieces.push_back(std::move(entries));
        return pieces;
    }
    for (size_t at = 0; at < entries.size(); at += page_size) {
        const auto begin = entries.begin() + static_cast<ptrdiff_t>(at);
        const size_t size = std::min(page_size, entries.size() - at);
        pieces.emplace_back(begin, begin + static_cast<ptrdiff_t>(size));
    }
    return pieces;
}

// Adds what a page becomes. The piece that has most of its entries stays the page, so that few of them move.
void replace_page(const PagePointer &page, std::vector<EntryPointer> entries, Arranged &arranged)
{
    auto pieces = pieces_of(std::move(entries));
    size_t keeper = 0;
    for (size_t i = 1; i < pieces.size(); ++i)
        if (shared(pieces[i], page.get()) > shared(pieces[keeper], page.get()))
            keeper = i;
    if (pieces.empty() && page != nullptr)
        arranged.changes.push_back({page, nullptr});
    for (size_t i = 0; i < pieces.size(); ++i) {
        const bool stays = page != nullptr && i == keeper;
        const auto next = std::make_shared<Page>();
        next->number = stays ? page->number : arranged.list.next_page++;
        next->jump = stays ? page->jump : 0;
        next->entries = std::move(pieces[i]);
        arranged.list.pages.push_back(next);
        arranged.changes.push_back({stays ? page : nullptr, next});
    }
}

} // namespace

Arranged arrange(const List &list, const std::map<uint64_t, EntryPointer> &entries, const Changed &changed)
{
    Arranged arranged;
    arranged.list.next_page = list.next_page;
    const auto all = movements(list, entries, changed);
    for (size_t i = 0; i < std::max<size_t>(1, list.pages.size()); ++i) {
        const PagePointer page = i < list.pages.size() ? list.pages[i] : nullptr;
        if (const auto movement = all.find(i); movement != all.end())
            replace_page(page, moved(page ? page->entries : std::vector<EntryPointer>(), movement->second), arranged);
        else if (page != nullptr)
            arranged.list.pages.push_back(page);
    }
    return arranged;
}

} // namespace plx::plane::nftables
