"""billingctl and its doctor."""
