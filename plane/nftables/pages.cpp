// See pages.hpp.
#include "plane/nftables/pages.hpp"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace plx::plane::nftables {

namespace {

bool before(const EntryPointer &one, const EntryPointer &other)
{
    return one->position < other->position;
}

// What comes to a page and what leaves it.
struct Movement {
    std::vector<EntryPointer> come; // in order
    std::set<EntryPointer> leave;
};

// The page whose entries stand around a position.
size_t page_of(const List &list, const Position &position)
{
    const auto behind =
        std::upper_bound(list.pages.begin(), list.pages.end(), position,
                         [](const Position &at, const PagePointer &page) { return at < page->first(); });
    return behind == list.pages.begin() ? 0 : static_cast<size_t>(behind - list.pages.begin() - 1);
}

std::map<size_t, Movement> movements(const List &list, const std::map<uint64_t, EntryPointer> &entries,
                                     const Changed &changed)
{
    std::map<size_t, Movement> all;
    for (const auto &[sn, entry] : changed) {
        if (const auto old = entries.find(sn); old != entries.end() && old->second->rules != 0)
            all[page_of(list, old->second->position)].leave.insert(old->second);
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
                 [&](const EntryPointer &entry) { return !movement.leave.contains(entry); });
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

bool same_shape(const Entry &entry, const Run &run)
{
    return entry.shape != nullptr && (entry.shape == run.shape || *entry.shape == *run.shape);
}

// A segment on its way: a run, or entries of which one page or several are made.
struct Segment {
    PagePointer before, after; // after: null until it is known, and of a page that stays as it is the same as before
    std::vector<EntryPointer> entries;
    RunPointer run;
    bool changed = false;
};

// Makes the segments from the first to the last. Entries that are to be cut into segments wait until it is known what
// stands before and behind them.
class Builder {
  public:
    explicit Builder(const List &list) { arranged_.list.next_page = list.next_page; }

    void take(const PagePointer &page, const Movement *movement)
    {
        if (page != nullptr && page->run != nullptr)
            return take_run(page, movement);
        flush();
        if (movement == nullptr)
            return push_page(page);
        waiting_ = moved(page ? page->entries : std::vector<EntryPointer>(), *movement);
        from_ = page;
    }

    Arranged finish()
    {
        flush();
        auto placements = arranged_.steps.placements();
        for (Segment &segment : segments_) {
            if (segment.changed)
                segment.after = made(segment);
            arranged_.list.pages.push_back(segment.after);
            if (segment.changed)
                arranged_.changes.push_back({segment.before, segment.after, std::move(placements[segment.run.get()])});
        }
        for (const PagePointer &page : gone_)
            arranged_.changes.push_back({page, nullptr, std::move(placements[page->run.get()])});
        return std::move(arranged_);
    }

  private:
    PagePointer made(const Segment &segment)
    {
        auto page = std::make_shared<Page>();
        page->number = segment.before ? segment.before->number : arranged_.list.next_page++;
        page->jump = segment.before ? segment.before->jump : 0;
        page->entries = segment.entries;
        page->run = segment.run;
        return page;
    }

    bool insert(Segment &segment, const EntryPointer &entry)
    {
        const bool done = same_shape(*entry, *segment.run) && arranged_.steps.insert(segment.run, entry);
        segment.changed = segment.changed || done;
        return done;
    }

    // ---- runs

    void take_run(const PagePointer &page, const Movement *movement)
    {
        Segment segment{.before = page, .after = page, .entries = {}, .run = page->run};
        if (movement == nullptr)
            return push_run(std::move(segment));
        segment.changed = true;
        for (const EntryPointer &entry : movement->leave)
            arranged_.steps.erase(segment.run, entry);
        std::vector<EntryPointer> others;
        for (const EntryPointer &entry : movement->come)
            if (!insert(segment, entry))
                others.push_back(entry);
        split(std::move(segment), others);
    }

    // At the places of entries that are not of it. The largest part stays the run.
    void split(Segment segment, const std::vector<EntryPointer> &at)
    {
        std::vector<std::vector<EntryPointer>> parts(1);
        auto other = at.begin();
        for (const auto &[position, entry] : segment.run->entries) {
            for (; other != at.end() && (*other)->position < position; ++other)
                parts.emplace_back();
            parts.back().push_back(entry);
            if (at.empty())
                break; // all of them are one part
        }
        parts.resize(at.size() + 1);
        const auto more = [](const auto &one, const auto &another) { return one.size() < another.size(); };
        const auto largest = std::max_element(parts.begin(), parts.end(), more) - parts.begin();
        for (size_t part = 0; part < parts.size(); ++part) {
            if (part != 0)
                waiting_.push_back(at[part - 1]);
            if (static_cast<ptrdiff_t>(part) == largest)
                push_later(segment, parts, part);
            else if (!parts[part].empty())
                push_run(part_of(segment, parts[part]));
        }
    }

    // The rest of a run, once the parts behind it are out of it.
    void push_later(Segment &segment, std::vector<std::vector<EntryPointer>> &parts, size_t part)
    {
        for (size_t behind = part + 1; behind < parts.size(); ++behind)
            for (const EntryPointer &entry : parts[behind])
                arranged_.steps.erase(segment.run, entry);
        if (segment.run->entries.empty())
            gone_.push_back(segment.before);
        else
            push_run(segment);
    }

    Segment part_of(const Segment &segment, const std::vector<EntryPointer> &entries)
    {
        Segment part{.before = nullptr, .after = nullptr, .entries = {}, .run = nullptr, .changed = true};
        part.run = std::make_shared<Run>(segment.run->shape);
        for (const EntryPointer &entry : entries) {
            const uint32_t layer = entry->layer;
            if (segment.run->entries.contains(entry->position))
                arranged_.steps.erase(segment.run, entry);
            arranged_.steps.put(part.run, entry, layer);
        }
        return part;
    }

    void push_run(Segment segment)
    {
        while (!waiting_.empty() && insert(segment, waiting_.back()))
            waiting_.pop_back();
        flush();
        if (!segments_.empty() && segments_.back().run != nullptr && join(segments_.back(), segment))
            return;
        segments_.push_back(std::move(segment));
    }

    // A small run goes into its neighbour, where all of it fits.
    bool join(Segment &one, Segment &other)
    {
        const bool into_first = one.run->entries.size() >= other.run->entries.size();
        Segment &into = into_first ? one : other, &from = into_first ? other : one;
        if (!(one.changed || other.changed) || from.run->entries.size() > page_size)
            return false;
        const auto entries = from.run->entries;
        std::vector<std::pair<EntryPointer, uint32_t>> done;
        for (const auto &[position, entry] : entries) {
            done.emplace_back(entry, entry->layer);
            arranged_.steps.erase(from.run, entry);
            if (!insert(into, entry)) {
                take_back(from, into, done);
                return false;
            }
        }
        if (from.before != nullptr)
            gone_.push_back(from.before);
        if (!into_first)
            one = std::move(other);
        return true;
    }

    // The last of them did not fit.
    void take_back(Segment &from, const Segment &into, const std::vector<std::pair<EntryPointer, uint32_t>> &entries)
    {
        for (const auto &[entry, layer] : entries) {
            if (into.run->entries.contains(entry->position))
                arranged_.steps.erase(into.run, entry);
            arranged_.steps.put(from.run, entry, layer);
        }
    }

    // ---- pages

    void push_page(const PagePointer &page)
    {
        if (page == nullptr)
            return;
        const bool may_join = !segments_.empty() && segments_.back().changed;
        if (!may_join || !join_page(page->entries, page))
            segments_.push_back({.before = page, .after = page, .entries = page->entries, .run = nullptr});
    }

    // A small page joins the one before it. The larger one stays.
    bool join_page(const std::vector<EntryPointer> &entries, PagePointer from)
    {
        if (segments_.empty() || segments_.back().run != nullptr)
            return false;
        Segment &into = segments_.back();
        const size_t smaller = std::min(entries.size(), into.entries.size());
        if (smaller > small_page || entries.size() + into.entries.size() > page_size)
            return false;
        if (from != nullptr && (into.before == nullptr || entries.size() > into.entries.size()))
            std::swap(into.before, from);
        if (from != nullptr)
            gone_.push_back(from);
        into.changed = true;
        into.entries.insert(into.entries.end(), entries.begin(), entries.end());
        return true;
    }

    // Cuts what waits into runs and pages. The piece that has most of a page's entries stays the page, so that few of
    // them move.
    void flush()
    {
        const std::vector<EntryPointer> all = std::exchange(waiting_, {});
        const PagePointer from = std::exchange(from_, nullptr);
        size_t at = 0;
        if (!segments_.empty() && segments_.back().run != nullptr)
            while (at < all.size() && insert(segments_.back(), all[at]))
                ++at;
        std::vector<Segment> pieces = cut({all.begin() + static_cast<ptrdiff_t>(at), all.end()});
        Segment *keeper = nullptr;
        for (Segment &piece : pieces)
            if (piece.run == nullptr &&
                (keeper == nullptr || shared(piece.entries, from.get()) > shared(keeper->entries, from.get())))
                keeper = &piece;
        if (keeper != nullptr)
            keeper->before = from;
        else if (from != nullptr)
            gone_.push_back(from);
        for (Segment &piece : pieces)
            if (piece.run != nullptr || !join_page(piece.entries, piece.before))
                segments_.push_back(std::move(piece));
    }

    std::vector<Segment> cut(const std::vector<EntryPointer> &entries)
    {
        std::vector<Segment> pieces;
        std::vector<EntryPointer> single;
        Segment run;
        for (const EntryPointer &entry : entries) {
            if (run.run != nullptr && insert(run, entry))
                continue;
            end_run(run, single, pieces);
            if (entry->shape == nullptr) {
                single.push_back(entry);
                continue;
            }
            run.run = std::make_shared<Run>(entry->shape);
            if (!insert(run, entry))
                single.push_back(entry);
        }
        end_run(run, single, pieces);
        end_pages(single, pieces);
        return pieces;
    }

    // A run that is too short is none.
    void end_run(Segment &run, std::vector<EntryPointer> &single, std::vector<Segment> &pieces)
    {
        const RunPointer made = std::exchange(run.run, nullptr);
        if (made == nullptr)
            return;
        const size_t size = made->entries.size();
        if (size >= shortest_run && size >= made->layers.maps() * entries_per_map) {
            end_pages(single, pieces);
            pieces.push_back({.before = nullptr, .after = nullptr, .entries = {}, .run = made, .changed = true});
            return;
        }
        const auto entries = made->entries;
        for (const auto &[position, entry] : entries) {
            arranged_.steps.erase(made, entry);
            single.push_back(entry);
        }
    }

    // Pieces of page_size, or all of it while that is not too much.
    static void end_pages(std::vector<EntryPointer> &entries, std::vector<Segment> &pieces)
    {
        const size_t size = entries.size() <= largest_page ? largest_page : page_size;
        for (size_t at = 0; at < entries.size(); at += size) {
            const auto begin = entries.begin() + static_cast<ptrdiff_t>(at);
            const auto end = begin + static_cast<ptrdiff_t>(std::min(size, entries.size() - at));
            pieces.push_back(
                {.before = nullptr, .after = nullptr, .entries = {begin, end}, .run = nullptr, .changed = true});
        }
        entries.clear();
    }

    Arranged arranged_;
    std::vector<Segment> segments_;
    std::vector<PagePointer> gone_;
    std::vector<EntryPointer> waiting_; // in order, behind the segments
    PagePointer from_;                  // the page that they are of
};

} // namespace

// ---- steps ----------------------------------------------------------------------------------------------------------

Steps::~Steps()
{
    for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
        Run &run = *step->run;
        for (const auto &[entry, from, to] : step->placements)
            if (to)
                run.layers.remove(*entry);
        for (const auto &[entry, from, to] : step->placements) {
            if (from)
                run.layers.put(*entry, *from);
            if (!from)
                run.entries.erase(entry->position);
            if (!to)
                run.entries.emplace(entry->position, entry);
        }
    }
}

bool Steps::insert(const RunPointer &run, const EntryPointer &entry)
{
    std::vector<packet::Layers::Move> moves;
    if (!run->layers.insert(*entry, moves))
        return false;
    run->entries.emplace(entry->position, entry);
    Step &step = steps_.emplace_back(Step{run, {}});
    for (const packet::Layers::Move &move : moves)
        step.placements.push_back({run->entries.at(move.item->position), move.from, move.to});
    return true;
}

void Steps::put(const RunPointer &run, const EntryPointer &entry, uint32_t layer)
{
    run->layers.put(*entry, layer);
    run->entries.emplace(entry->position, entry);
    steps_.push_back({run, {{entry, std::nullopt, layer}}});
}

void Steps::erase(const RunPointer &run, const EntryPointer &entry)
{
    steps_.push_back({run, {{entry, entry->layer, std::nullopt}}});
    run->layers.remove(*entry);
    run->entries.erase(entry->position);
}

std::map<const Run *, std::vector<Placement>> Steps::placements() const
{
    std::map<std::pair<const Run *, const Entry *>, Placement> all;
    for (const Step &step : steps_)
        for (const Placement &placement : step.placements)
            all.try_emplace({step.run.get(), placement.entry.get()}, placement).first->second.to = placement.to;
    std::map<const Run *, std::vector<Placement>> by_run;
    for (const auto &[of, placement] : all)
        if (placement.from != placement.to)
            by_run[of.first].push_back(placement);
    return by_run;
}

Arranged arrange(const List &list, const std::map<uint64_t, EntryPointer> &entries, const Changed &changed)
{
    Builder builder(list);
    const auto all = movements(list, entries, changed);
    for (size_t i = 0; i < std::max<size_t>(1, list.pages.size()); ++i) {
        const PagePointer page = i < list.pages.size() ? list.pages[i] : nullptr;
        const auto movement = all.find(i);
        builder.take(page, movement == all.end() ? nullptr : &movement->second);
    }
    return builder.finish();
}

} // namespace plx::plane::nftables
