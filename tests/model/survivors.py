"""Mutants that the searches cannot distinguish from the model, each with the reason."""

from __future__ import annotations

ANY = ("negated", "always", "never")

GROUPS: list[tuple[str, dict[str, tuple[str, ...]]]] = [
    (
        "only the close takes the token away, and it is looked for before",
        {
            "awaited_token_held": ("never",),
            "confirmed_token_held": ("never",),
            "nudged_token_held": ("never",),
            "polled_token_held": ("never",),
            "snapshot_has_token": ("never",),
            "fast_if_held": ("always",),
        },
    ),
    (
        "the flag is set together with an error or a state that keep the token from being served as well",
        {
            "awaited_not_permanent": ("never",),
            "confirmed_not_permanent": ("never",),
            "expired_not_permanent": ("never",),
            "fast_if_not_permanent": ("always",),
        },
    ),
    (
        "a call that is not served on the fast path, or at first sight, is served on the full one",
        {
            "backing_off_at_sight": ANY,
            "backing_off_still": ("never",),
            "fast_if_authenticated": ("never",),
            "fast_if_era_met": ("never",),
            "fast_if_fresh": ("never",),
            "fast_if_held": ("negated", "never"),
            "fast_if_not_permanent": ("negated", "never"),
        },
    ),
    (
        "looked at again under the lock, at the latest when the token is read or stored",
        {
            "backing_off_not_closed": ("never",),
            "confirmed_not_closed": ("never",),
            "first_token_meets_era": ("always",),
            "second_token_meets_era": ("always",),
            "snapshot_without_pending_era": ("never",),
            "loop_sees_close": ("never",),
            "loop_sees_stop": ("never",),
            "unstarted_leaves_closed_alone": ("never",),
            "close_sets_close_event": ("dropped",),
            "close_sets_refresh_stop": ("dropped",),
            "poll_sees_renewal": ("never",),
        },
    ),
    (
        "an attempt begins only when none is in flight, so nothing overtakes it: a second line of defence",
        {
            "confirmed_event_is_new": ("never",),
            "overtaken_by_announcement": ("never",),
        },
    ),
    (
        "what stores or settles an attempt, or closes, has woken who waits for it: a second line of defence",
        {"login_wakes_its_waiters": ("dropped",)},
    ),
    (
        "after a failed start a superseded loop may sleep on until its refresh point, and a waiter time out",
        {"unstarted_is_newest_still": ANY, "unstarted_ends_refresh": ("dropped",)},
    ),
    (
        "takes three logins in a row past one waiter: beyond these searches, done by a test",
        {"outcome_is_of_own_attempt": ("never",)},
    ),
    (
        "a wake-up too many or too few, which costs time that the model does not measure",
        {
            "close_finds_waiters": ("always",),
            "refresh_done_is_awaited": ("always",),
            "refresh_done_is_stale": ("never",),
            "signal_is_the_closes": ("always",),
            "signal_is_the_successors": ANY,
            "announcement_wakes_loop": ("dropped",),
            "expiry_wakes_loop": ("dropped",),
            "nudge_wakes_loop": ("dropped",),
            "older_is_woken": ("dropped",),
            "refresh_done_cleared": ("dropped",),
        },
    ),
]

SURVIVORS = {
    f"{name} {kind}": reason for reason, names in GROUPS for name, kinds in names.items() for kind in kinds
}
