// Dynamic live views: stored view definitions, each a set of distributions
// (what traffic is broken down by) and of filters (which traffic is shown).
#include <memory>

#include "reply_reader.h"
#include "rule_common.h"
#include "tq_log.h"

namespace {

using view_t = tqdb_api_dynamicliveview_t;
using distribution_t = tqdb_api_dynamicliveview_distribution_t;
using filter_t = tqdb_api_dynamicliveview_filter_t;
using value_t = tqdb_api_dynamicliveview_filter_value_t;

// The list reply is one stream of tagged entries; every entry but a view
// names its parents by id.
enum tag_t : uint8_t { kView = 0, kDistribution = 1, kFilter = 2, kFilterValue = 3 };

constexpr const char *kDecoder = "tqdb_api_dynamicliveview_list_handle";

// The first record of list with that id, walking from the head.
template <class Rec>
Rec *find(tq_list_t *list, uint32_t id) {
  for (; list != nullptr; list = list->next) {
    auto *rec = static_cast<Rec *>(list->data);
    if (rec->id == id) return rec;
  }
  return nullptr;
}

struct RecordDeleter {
  void operator()(void *p) const { tq_free_flags(p); }
};
template <class Rec>
using RecordPtr = std::unique_ptr<Rec, RecordDeleter>;

// Puts rec at the head of *list when a parent was found; an orphan, or a
// record no node can be had for, is freed and dropped.
template <class Rec>
void attach(RecordPtr<Rec> rec, tq_list_t **list) {
  if (list == nullptr) return;
  tq_list_t *node = tq_list_new(0, *list, rec.get());
  if (node == nullptr) return;
  (void)rec.release();
  *list = node;
}

void put_values(tq_msg_t *m, const tq_list_t *values) {
  tqdb_api_put(m, tq_list_length(values));
  for (; values != nullptr; values = values->next)
    tqdb_api_put(m, static_cast<const value_t *>(values->data)->value);
}

}  // namespace

uint32_t tqdb_api_dynamicliveview_add(tqdb_api_handle_t *h, uint32_t session, const char *name) {
  return tqdb_api_send(h, TQDB_REQ_DYNAMICLIVEVIEW_ADD, session, name);
}
uint32_t tqdb_api_dynamicliveview_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_DYNAMICLIVEVIEW_REMOVE, session, id);
}
uint32_t tqdb_api_dynamicliveview_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_DYNAMICLIVEVIEW_LIST, session);
}
uint32_t tqdb_api_dynamicliveview_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         const char *name) {
  return tqdb_api_send(h, TQDB_REQ_DYNAMICLIVEVIEW_RENAME, session, id, name);
}

// Distributions go first on the wire. Counts are written as the lists hold
// them; an element that no longer fits is left out on its own.
uint32_t tqdb_api_dynamicliveview_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         const tq_list_t *filters,
                                         const tq_list_t *distributions) {
  return tqdb_api_request(h, TQDB_REQ_DYNAMICLIVEVIEW_UPDATE, session, [=](tq_msg_t *m) {
    tq::put_fields(m, id, tq_list_length(distributions));
    for (const tq_list_t *n = distributions; n != nullptr; n = n->next) {
      const auto *d = static_cast<const distribution_t *>(n->data);
      tq::put_fields(m, d->distribution, d->argument);
    }
    tqdb_api_put(m, tq_list_length(filters));
    for (const tq_list_t *n = filters; n != nullptr; n = n->next) {
      const auto *f = static_cast<const filter_t *>(n->data);
      tq::put_fields(m, f->op, f->key);
      put_values(m, f->values);
    }
  });
}

// Everything is put at the head of its list. Parents are looked up in the
// whole list, so entries continuing an answer over several replies attach
// to views of earlier ones.
// A field that runs past the body ends it: what is left of a text cut short
// is never read as the next tag.
tq_list_t *tqdb_api_dynamicliveview_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, kDecoder);
  while (r.ok() && r.left() >= 1) {
    const uint8_t tag = r.u8();
    switch (tag) {
      case kView: {
        RecordPtr<view_t> v(tq_new_record<view_t>("tqdb_api_dynamicliveview_t"));
        v->id = r.u32();
        r.text(v->name);
        r.audit(v->audit);
        attach(std::move(v), &list);
        break;
      }
      case kDistribution: {
        RecordPtr<distribution_t> d(
            tq_new_record<distribution_t>("tqdb_api_dynamicliveview_distribution_t"));
        d->id = r.u32();
        view_t *v = find<view_t>(list, r.u32());
        r.text(d->distribution);
        r.text(d->argument);
        attach(std::move(d), v != nullptr ? &v->distributions : nullptr);
        break;
      }
      case kFilter: {
        RecordPtr<filter_t> f(tq_new_record<filter_t>("tqdb_api_dynamicliveview_filter_t"));
        f->id = r.u32();
        view_t *v = find<view_t>(list, r.u32());
        f->op = r.u8();
        r.text(f->key);
        attach(std::move(f), v != nullptr ? &v->filters : nullptr);
        break;
      }
      case kFilterValue: {
        RecordPtr<value_t> val(tq_new_record<value_t>("tqdb_api_dynamicliveview_filter_value_t"));
        val->id = r.u32();
        view_t *v = find<view_t>(list, r.u32());
        const uint32_t filter_id = r.u32();
        filter_t *f = v != nullptr ? find<filter_t>(v->filters, filter_id) : nullptr;
        r.text(val->value);
        attach(std::move(val), f != nullptr ? &f->values : nullptr);
        break;
      }
      default:
        tq_bug_fatal("dynamicliveview.c", 160, kDecoder, "u8 > 3", "");
    }
  }
  return list;
}

void tqdb_api_dynamicliveview_filters_free(tq_list_t *filters) {
  for (tq_list_t *n = filters; n != nullptr; n = n->next)
    tq_list_free_with_data(static_cast<filter_t *>(n->data)->values);
  tq_list_free_with_data(filters);
}

void tqdb_api_dynamicliveview_list_free(tq_list_t *list) {
  for (tq_list_t *n = list; n != nullptr; n = n->next) {
    auto *v = static_cast<view_t *>(n->data);
    tq_list_free_with_data(v->distributions);
    tqdb_api_dynamicliveview_filters_free(v->filters);
  }
  tq_list_free_with_data(list);
}
