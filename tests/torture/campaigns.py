"""All campaigns, in the order in which they are run."""

import clients
import durability
import fuzz
import limits
import size
import soak
import threads

CAMPAIGNS = (
    durability.CAMPAIGN, soak.CAMPAIGN, clients.CAMPAIGN, limits.CAMPAIGN, size.CAMPAIGN,
    threads.CAMPAIGN, fuzz.CAMPAIGN,
)  # fmt: skip
