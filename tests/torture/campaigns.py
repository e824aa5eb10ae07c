"""All campaigns, in the order in which they are run."""

import clients
import durability
import limits
import size
import soak
import threads

CAMPAIGNS = (
    durability.CAMPAIGN, soak.CAMPAIGN, clients.CAMPAIGN, limits.CAMPAIGN, size.CAMPAIGN,
    threads.CAMPAIGN,
)  # fmt: skip
