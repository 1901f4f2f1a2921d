// Placeholder so that an empty library folder still forms a target.
