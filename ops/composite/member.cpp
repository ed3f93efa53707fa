// Union members: each member has its own pointer slot; setting one switches the discriminator to
// it and leaves every other slot as it is, so a union may hold objects in several slots of which
// only the one its discriminator chooses is seen.
#include "ops/composite/composite.h"
#include "ops/steps.h"
#include "ops/walk.h"

namespace ovrin {

using namespace steps;

namespace {

EnumInstance *discriminator(const Type &t, void *instance) {
    return static_cast<EnumInstance *>(field_at(instance, t.fields[t.discriminator]));
}

// A replaced or detached member leaves the union: the database is told, and, in its platform
// mode, that the object is detached (its release is then the database's or the caller's).
void detached(mgx_handle_t *h, uint32_t luid, const void *member, const void *instance) {
    if (!h->database) return;
    mgxdb_record_containment2(h, luid, member, instance, 1);
    if (h->domain_mode == 1 && luid != MGX_LUID_NONE) mgxdb_plat_set_detach(h, luid, member);
}

} // namespace

// The slot as it is, whatever the discriminator says.
void *member_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!start(h, luid, instance, err) || !present_in(f, h, instance, err)) return nullptr;
    void *member = field_of(t, f, instance).pointer();
    if (!member) return nullptr;
    // Fetched as the member type's get does (reported alone), then reported as the union's child.
    report(h, luid, member, nullptr);
    report(h, luid, member, instance);
    return member;
}

void member_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *member, uint32_t *err) {
    if (!start(h, luid, instance, err) || !adjust_for(t, f, h, luid, instance, err)) return;
    if (!member) return fail(h, err, MGX_EINVAL);
    void *&slot = field_of(t, f, instance).pointer();
    if (slot && slot != member) detached(h, luid, slot, instance);
    notify(h, &slot, sizeof slot, luid, instance);
    slot = member;
    EnumInstance *d = discriminator(t, instance);
    notify(h, &d->value, sizeof d->value, luid, instance);
    d->value = f.select;
    // A failed tracking check leaves the member stored and the union switched to it.
    if (marking(t, h, instance, err)) {
        if (!value_tracked(t, h, member, err)) return;
        if (uint8_t *area = state_area(t, h, luid, instance)) mark(h, luid, area + f.sttr_pos, instance);
    }
    if (failed(err)) return;
    report(h, luid, member, instance);
}

uint32_t member_set_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, void *member) {
    member_set(t, f, h, h->desc_call_luid, instance, member, &h->last_error);
    return h->last_error;
}

void *member_get_detach(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!start(h, luid, instance, err) || !adjust_for(t, f, h, luid, instance, err)) return nullptr;
    if (!field_of(t, f, static_cast<const void *>(instance)).selected()) return nullptr;
    // An untracked union under a tracking handle is refused before anything changes: the member
    // stays in its slot, still the union's, rather than leaving it with no owner.
    bool flags = tracking(t, h);
    if (flags && !tracked(instance)) {
        fail(h, err, MGX_EINVAL);
        trace(t, Message::not_state_tracked, MGX_SEV_ERROR);
        return nullptr;
    }
    void *&slot = field_of(t, f, instance).pointer();
    void *member = slot;
    notify(h, &slot, sizeof slot, luid, instance);
    slot = nullptr;
    EnumInstance *d = discriminator(t, instance);
    notify(h, &d->value, sizeof d->value, luid, instance);
    d->value = 0;
    if (flags)
        if (uint8_t *area = state_area(t, h, luid, instance)) mark(h, luid, area + f.sttr_pos, instance, 0);
    if (member) detached(h, luid, member, instance);
    return member;
}

} // namespace ovrin
