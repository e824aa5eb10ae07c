"""All campaigns, in the order in which they are run."""

import durability

CAMPAIGNS = (durability.CAMPAIGN,)
